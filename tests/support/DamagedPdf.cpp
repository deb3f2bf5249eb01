#include "tests/support/DamagedPdf.h"

#include <cstdlib>

#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {
namespace {

// The number at pos (after spaces), or -1.
long NumberAt(const std::string& text, size_t pos, size_t* end = nullptr) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\r' || text[pos] == '\n')) ++pos;
    size_t digits = pos;
    while (digits < text.size() && digits - pos < 12 && text[digits] >= '0' && text[digits] <= '9') ++digits;
    if (digits == pos) return -1;
    if (end != nullptr) *end = digits;
    return std::strtol(text.substr(pos, digits - pos).c_str(), nullptr, 10);
}

// The reference after key ("/Root 1 0 R" gives 1 and 0), searched from the
// end when last; false when there is none in plain text.
bool ReferenceAfter(const std::string& file, const std::string& key, bool last, long* num, long* gen) {
    size_t at = last ? file.rfind(key) : file.find(key);
    while (at != std::string::npos) {
        size_t end = 0;
        *num = NumberAt(file, at + key.size(), &end);
        if (*num > 0) {
            *gen = NumberAt(file, end, &end);
            if (*gen >= 0) return true;
        }
        at = last ? (at == 0 ? std::string::npos : file.rfind(key, at - 1)) : file.find(key, at + 1);
    }
    return false;
}

void Blank(std::string& file, size_t from, size_t to) {
    for (size_t i = from; i < to && i < file.size(); ++i) {
        if (file[i] != '\n') file[i] = ' ';
    }
}

const std::string kContent = "0 0 1 rg 10 10 50 50 re f";

std::string Page(int parent, int content) {
    return "<< /Type /Page /Parent " + std::to_string(parent) + " 0 R /MediaBox [0 0 200 200] /Contents " +
           std::to_string(content) + " 0 R >>";
}

// Catalog, a root node with the given body, two pages (3 and 4) and their
// contents (5 and 6).
std::string TwoPages(const std::string& root, const std::string& catalog = "<< /Type /Catalog /Pages 2 0 R >>") {
    return RawPdf({catalog, root, Page(2, 5), Page(2, 6), RawStream("", kContent), RawStream("", kContent)});
}

}  // namespace

std::string Truncated(const std::string& file, double fraction) {
    return file.substr(0, size_t(double(file.size()) * fraction));
}

std::string WithoutXref(const std::string& file) {
    const size_t keyword = file.rfind("startxref");
    if (keyword == std::string::npos) return "";
    const long start = NumberAt(file, keyword + 9);
    if (start <= 0 || size_t(start) >= keyword) return "";
    std::string damaged = file;
    Blank(damaged, size_t(start), keyword);
    return damaged;
}

std::string WithShiftedObjects(const std::string& file) {
    const size_t line = file.find('\n');
    if (line == std::string::npos) return "";
    std::string damaged = file;
    damaged.insert(line + 1, "%" + std::string(40, ' ') + "\n");
    return damaged;
}

std::string WithLoopingUpdate(const std::string& file) {
    long num = 0, gen = 0;
    if (!ReferenceAfter(file, "/Root", true, &num, &gen)) return "";
    std::string damaged = file;
    if (damaged.empty() || damaged.back() != '\n') damaged += '\n';
    const size_t sizeAt = file.rfind("/Size");
    const long size = sizeAt == std::string::npos ? num + 1 : NumberAt(file, sizeAt + 5);
    const std::string self = std::to_string(damaged.size());
    damaged += "xref\n0 1\n0000000000 65535 f \ntrailer\n<< /Size " + std::to_string(size > num ? size : num + 1) +
               " /Root " + std::to_string(num) + " " + std::to_string(gen) + " R /Prev " + self + " >>\nstartxref\n" +
               self + "\n%%EOF\n";
    return damaged;
}

std::string WithLyingCount(const std::string& file) {
    long num = 0, gen = 0;
    if (!ReferenceAfter(file, "/Pages", false, &num, &gen)) return "";
    const std::string header = std::to_string(num) + " " + std::to_string(gen) + " obj";
    size_t object = file.find("\n" + header);
    if (object == std::string::npos) return "";
    const size_t end = file.find("endobj", object);
    const size_t count = file.find("/Count", object);
    if (count == std::string::npos || count > end) return "";
    size_t digitsEnd = 0;
    if (NumberAt(file, count + 6, &digitsEnd) < 0) return "";
    std::string damaged = file;
    for (size_t i = digitsEnd; i > count + 6 && damaged[i - 1] >= '0' && damaged[i - 1] <= '9'; --i) damaged[i - 1] = '9';
    return damaged;
}

std::string WithoutObjectStreams(const std::string& file) {
    std::string damaged = file;
    bool found = false;
    for (const std::string key : {"/Type /ObjStm", "/Type/ObjStm"}) {
        for (size_t at = damaged.find(key); at != std::string::npos; at = damaged.find(key, at + 1)) {
            const size_t stream = damaged.find("stream", at);
            const size_t end = damaged.find("endstream", stream);
            if (stream == std::string::npos || end == std::string::npos) continue;
            Blank(damaged, stream + 6, end);
            found = true;
        }
    }
    return found ? damaged : "";
}

std::string CompressedPdf(int pages) {
    // Objects: 1 catalog and 2 root (in the stream), pages from 3, their
    // contents, the object stream, the cross-reference stream.
    const int streamNum = 3 + 2 * pages, xrefNum = streamNum + 1;
    std::string kids;
    for (int i = 0; i < pages; ++i) kids += std::to_string(3 + i) + " 0 R ";
    const std::string catalog = "<< /Type /Catalog /Pages 2 0 R >>";
    const std::string root = "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages) + " >>";
    const std::string packed = catalog + "\n" + root + "\n";
    const std::string index = "1 0 2 " + std::to_string(catalog.size() + 1) + "\n";

    std::string file = "%PDF-1.7\n";
    std::vector<long> offsets(size_t(xrefNum) + 1, 0);
    auto add = [&](int num, const std::string& body) {
        offsets[size_t(num)] = long(file.size());
        file += std::to_string(num) + " 0 obj\n" + body + "\nendobj\n";
    };
    for (int i = 0; i < pages; ++i) add(3 + i, Page(2, 3 + pages + i));
    for (int i = 0; i < pages; ++i) add(3 + pages + i, RawStream("", kContent));
    add(streamNum, RawStream("/Type /ObjStm /N 2 /First " + std::to_string(index.size()), index + packed));
    std::string entries;
    auto entry = [&](int type, long field2, int field3) {
        entries += char(type);
        for (int shift = 24; shift >= 0; shift -= 8) entries += char((field2 >> shift) & 0xFF);
        entries += char((field3 >> 8) & 0xFF);
        entries += char(field3 & 0xFF);
    };
    offsets[size_t(xrefNum)] = long(file.size());
    entry(0, 0, 0xFFFF);
    entry(2, streamNum, 0);
    entry(2, streamNum, 1);
    for (int num = 3; num <= xrefNum; ++num) entry(1, offsets[size_t(num)], 0);
    add(xrefNum, RawStream("/Type /XRef /Size " + std::to_string(xrefNum + 1) + " /W [1 4 2] /Root 1 0 R", entries));
    return file + "startxref\n" + std::to_string(offsets[size_t(xrefNum)]) + "\n%%EOF\n";
}

std::vector<DamagedPdf> DamagedPdfs() {
    const std::string sound = TwoPages("<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 >>");
    const std::string compressed = CompressedPdf(2);
    return {
        {"root /Count claims a billion pages", TwoPages("<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 1000000000 >>"), 2},
        {"counts lie below the root",
         RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R 7 0 R] /Count 6 >>", Page(2, 5),
                 Page(7, 6), RawStream("", kContent), RawStream("", kContent),
                 "<< /Type /Pages /Parent 2 0 R /Kids [4 0 R] /Count 5 >>"}),
         2},
        {"the root lists itself", TwoPages("<< /Type /Pages /Kids [3 0 R 2 0 R 4 0 R] /Count 3 >>"), 2},
        {"a page listed four times", TwoPages("<< /Type /Pages /Kids [3 0 R 3 0 R 4 0 R 3 0 R] /Count 4 >>"), 4},
        {"a listing of no object", TwoPages("<< /Type /Pages /Kids [3 0 R 9 0 R 4 0 R] /Count 3 >>"), 2},
        {"no page reachable", TwoPages("<< /Type /Pages /Kids [] /Count 0 >>"), 2},
        {"catalog names a missing root", TwoPages("<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 >>",
                                                  "<< /Type /Catalog /Pages 9 0 R >>"),
         2},
        {"newest xref section's /Prev loops", WithLoopingUpdate(sound), 2},
        {"every offset wrong", WithShiftedObjects(sound), 2},
        {"xref table gone", WithoutXref(sound), 2},
        {"cut before the second page", sound.substr(0, sound.find("4 0 obj")), 1},
        {"cut in the middle", Truncated(sound, 0.5), 2},
        {"cut inside a dictionary", sound.substr(0, sound.find("/MediaBox", sound.find("4 0 obj")) + 3), 1},
        {"object stream gone", WithoutObjectStreams(compressed), 2},
        {"xref stream gone", WithoutXref(compressed), 2},
        {"object stream and xref stream gone", WithoutXref(WithoutObjectStreams(compressed)), 2},
    };
}

}  // namespace QuirelleTest
