#include "tests/support/PdfBuilder.h"

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

#include "engine/Guarded.h"
#include "engine/Handles.h"

// The file is written as PDF text by hand: every dictionary is exactly what
// the page layouts ask for, and MuPDF only gets involved to encrypt the result.

namespace QuirelleTest {

namespace {

using Orvane::PDF::Pdfium::guarded;

// A number as PDF writes it: integers without a point, otherwise at most four
// decimals with trailing zeros cut.
std::string Num(double v) {
    if (!std::isfinite(v)) throw std::runtime_error("PdfBuilder: coordinate is not a finite number");
    char buf[64];
    if (v == std::floor(v) && std::fabs(v) < 1e15) {
        std::snprintf(buf, sizeof buf, "%.0f", v == 0 ? 0.0 : v);
        return buf;
    }
    std::snprintf(buf, sizeof buf, "%.4f", v);
    std::string s = buf;
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
    if (s == "-0") s = "0";
    return s;
}

std::string Opt(const std::optional<double>& v) {
    return v ? Num(*v) : "null";
}

std::string RectArray(const Rect& r) {
    return "[" + Num(r.left) + " " + Num(r.bottom) + " " + Num(r.right) + " " + Num(r.top) + "]";
}

std::string Ref(int num) {
    return std::to_string(num) + " 0 R";
}

// Colour operands "r g b" for 0xRRGGBB.
std::string Rgb(uint32_t rgb) {
    auto channel = [](uint32_t c) { return Num(std::round(c / 255.0 * 1000.0) / 1000.0); };
    return channel((rgb >> 16) & 0xFF) + " " + channel((rgb >> 8) & 0xFF) + " " + channel(rgb & 0xFF);
}

// A literal string for already encoded bytes; anything outside printable
// ASCII goes as an octal escape so the file stays readable.
std::string LiteralString(const std::string& bytes) {
    std::string out = "(";
    for (unsigned char c : bytes) {
        if (c == '(' || c == ')' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\%03o", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + ")";
}

// A name object, with #xx for bytes that may not stand in a name.
std::string Name(const std::string& name) {
    std::string out = "/";
    for (unsigned char c : name) {
        if (c < 0x21 || c > 0x7E || std::strchr("()<>[]{}/%#", c) != nullptr) {
            char esc[4];
            std::snprintf(esc, sizeof esc, "#%02X", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// UTF-8 to the single bytes of the text font: WinAnsiEncoding (equal to
// Latin-1 above 0x9F), and byte 0x81 for the ligature U+FB01.
std::string ToLatin1(const std::string& utf8) {
    std::string out;
    for (size_t i = 0; i < utf8.size();) {
        const unsigned char c = utf8[i];
        uint32_t cp = 0;
        if (c < 0x80) {
            cp = c;
            i += 1;
        } else if ((c & 0xE0) == 0xC0 && i + 1 < utf8.size() && (utf8[i + 1] & 0xC0) == 0x80) {
            cp = ((c & 0x1Fu) << 6) | (utf8[i + 1] & 0x3Fu);
            i += 2;
        } else if (utf8.compare(i, 3, "\xEF\xAC\x81") == 0) {
            out += '\x81';
            i += 3;
            continue;
        } else {
            throw std::runtime_error("PdfBuilder: text outside Latin-1: " + utf8);
        }
        if (cp > 0xFF || (cp >= 0x80 && cp < 0xA0))
            throw std::runtime_error("PdfBuilder: text outside Latin-1: " + utf8);
        if (cp == '\n' || cp == '\r') throw std::runtime_error("PdfBuilder: line break in a text run");
        out += static_cast<char>(cp);
    }
    return out;
}

// The objects, numbered from 1, after the header, with their cross-reference
// table and a trailer of /Size and the entries trailer() gives for the bytes so far.
std::string LayOut(const std::vector<std::string>& objects, std::string out,
                   const std::function<std::string(const std::string&)>& trailer) {
    std::vector<size_t> offsets;
    for (size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const size_t xref = out.size();
    out += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t offset : offsets) {
        char entry[24];
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
        out += entry;
    }
    return out + "trailer\n<< /Size " + std::to_string(objects.size() + 1) + trailer(out) + " >>\nstartxref\n" +
           std::to_string(xref) + "\n%%EOF\n";
}

// Holds the objects by number and lays them out with their cross-reference table.
class ObjectWriter {
public:
    int Reserve() {
        objects_.emplace_back();
        return static_cast<int>(objects_.size());
    }
    void Set(int num, std::string body) { objects_.at(num - 1) = std::move(body); }
    int Add(std::string body) {
        const int num = Reserve();
        Set(num, std::move(body));
        return num;
    }
    int AddStream(const std::string& entries, const std::string& data) { return Add(RawStream(entries, data)); }

    std::string Finish(int root, int info = 0) const {
        return LayOut(objects_, "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n", [&](const std::string& body) {
            // A stable /ID from the body, so the same pages give the same bytes.
            uint64_t h1 = 1469598103934665603ull, h2 = 7809847782465536322ull;
            for (unsigned char c : body) {
                h1 = (h1 ^ c) * 1099511628211ull;
                h2 = (h2 ^ c) * 1099511628211ull + 1;
            }
            char id[40];
            std::snprintf(id, sizeof id, "%016llX%016llX", static_cast<unsigned long long>(h1),
                          static_cast<unsigned long long>(h2));
            return " /Root " + Ref(root) + (info > 0 ? " /Info " + Ref(info) : std::string()) + " /ID [<" + id +
                   "> <" + id + ">]";
        });
    }

private:
    std::vector<std::string> objects_;
};

std::string DestArray(int pageRef, const std::string& mode, const std::optional<double>& left,
                      const std::optional<double>& top, const std::optional<double>& zoom,
                      const std::optional<double>& right, const std::optional<double>& bottom) {
    const std::string page = "[" + Ref(pageRef);
    if (mode.empty() || mode == "XYZ") return page + " /XYZ " + Opt(left) + " " + Opt(top) + " " + Opt(zoom) + "]";
    if (mode == "Fit" || mode == "FitB") return page + " /" + mode + "]";
    if (mode == "FitH" || mode == "FitBH") return page + " /" + mode + " " + Opt(top) + "]";
    if (mode == "FitV" || mode == "FitBV") return page + " /" + mode + " " + Opt(left) + "]";
    if (mode == "FitR")
        return page + " /FitR " + Opt(left) + " " + Opt(bottom) + " " + Opt(right) + " " + Opt(top) + "]";
    throw std::runtime_error("PdfBuilder: unknown destination mode " + mode);
}

// Rewrites a plain file encrypted, with a context of its own so that any
// thread can build files.
std::string EncryptWithMupdf(const std::string& plain, const Encryption& encryption) {
    using namespace Orvane::PDF::Pdfium;
    if (encryption.userPassword.size() >= 128 || encryption.ownerPassword.size() >= 128)
        throw std::runtime_error("PdfBuilder: password longer than 127 bytes");
    std::unique_ptr<fz_context, decltype(&fz_drop_context)> holder(fz_new_context(nullptr, nullptr, FZ_STORE_DEFAULT),
                                                                   fz_drop_context);
    fz_context* ctx = holder.get();
    if (ctx == nullptr) throw std::runtime_error("PdfBuilder: cannot create a MuPDF context");

    pdf_write_options opts = pdf_default_write_options;
    const int methods[] = {PDF_ENCRYPT_RC4_40, PDF_ENCRYPT_RC4_128, PDF_ENCRYPT_AES_128, PDF_ENCRYPT_AES_256};
    opts.do_encrypt = methods[int(encryption.method)];  // in the order of Encryption::Method
    opts.permissions = encryption.permissions;
    std::memcpy(opts.upwd_utf8, encryption.userPassword.c_str(), encryption.userPassword.size() + 1);
    std::memcpy(opts.opwd_utf8, encryption.ownerPassword.c_str(), encryption.ownerPassword.size() + 1);

    try {
        const unsigned char* data = reinterpret_cast<const unsigned char*>(plain.data());
        const size_t size = plain.size();
        StreamHandle stream(ctx, guarded(ctx, [&] { return fz_open_memory(ctx, data, size); }));
        PdfDocumentHandle doc(ctx, guarded(ctx, [&] { return pdf_open_document_with_stream(ctx, stream.get()); }));
        BufferHandle buffer(ctx, guarded(ctx, [&] { return fz_new_buffer(ctx, size + 4096); }));
        OutputHandle out(ctx, guarded(ctx, [&] { return fz_new_output_with_buffer(ctx, buffer.get()); }));
        guarded(ctx, [&] {
            pdf_write_document(ctx, doc.get(), out.get(), &opts);
            fz_close_output(ctx, out.get());
        });
        unsigned char* bytes = nullptr;
        const size_t length = fz_buffer_storage(ctx, buffer.get(), &bytes);
        return std::string(reinterpret_cast<const char*>(bytes), length);
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("PdfBuilder: encryption failed: ") + e.what());
    }
}

}  // namespace

PdfBuilder& PdfBuilder::AddPage(PageLayout page) {
    pages_.push_back(std::move(page));
    return *this;
}

PdfBuilder& PdfBuilder::AddNumberedPages(int count, double width, double height) {
    for (int i = 0; i < count; ++i) {
        PageLayout page;
        page.width = width;
        page.height = height;
        page.text.push_back({72, 720, 12, "Page " + std::to_string(pages_.size() + 1)});
        pages_.push_back(std::move(page));
    }
    return *this;
}

PdfBuilder& PdfBuilder::AddNamedDestination(const std::string& name, int page, double left, double top,
                                            bool inNamesTree) {
    named_.push_back({name, page, left, top, inNamesTree});
    return *this;
}

PdfBuilder& PdfBuilder::InheritAttributes(bool inherit) {
    inherit_ = inherit;
    return *this;
}

PdfBuilder& PdfBuilder::Encrypt(Encryption encryption) {
    encryption_ = std::move(encryption);
    return *this;
}

PdfBuilder& PdfBuilder::AddOutline(std::vector<OutlineEntry> entries) {
    outline_.insert(outline_.end(), entries.begin(), entries.end());
    return *this;
}

PdfBuilder& PdfBuilder::AddPageLabels(std::vector<PageLabelRange> ranges) {
    labels_.insert(labels_.end(), ranges.begin(), ranges.end());
    return *this;
}

PdfBuilder& PdfBuilder::AddField(FieldLayout field) {
    fields_.push_back(std::move(field));
    return *this;
}

PdfBuilder& PdfBuilder::AddAttachment(const std::string& name, const std::string& data) {
    attachments_.emplace_back(name, data);
    return *this;
}

PdfBuilder& PdfBuilder::SetTitle(const std::string& title, bool withXmp) {
    title_ = title;
    xmp_ = withXmp;
    return *this;
}

PdfBuilder& PdfBuilder::AddLayer(const std::string& name) {
    layers_.push_back(name);
    return *this;
}

PdfBuilder& PdfBuilder::AddStructureTree() {
    structure_ = true;
    return *this;
}

PdfBuilder& PdfBuilder::AddCatalogEntries(const std::string& entries) {
    catalogEntries_ += " " + entries;
    return *this;
}

std::string PdfBuilder::Build() const {
    ObjectWriter w;
    const int catalog = w.Reserve();
    const int pagesRoot = w.Reserve();
    // Files that use them read byte 0xAD back as a soft hyphen (WinAnsi alone
    // reads it as a hyphen) and byte 0x81 as the "fi" ligature; other files
    // keep the plain font.
    bool special = false;
    for (const PageLayout& page : pages_) {
        for (const TextRun& run : page.text) {
            special = special || run.text.find("\xC2\xAD") != std::string::npos ||
                      run.text.find("\xEF\xAC\x81") != std::string::npos;
        }
    }
    std::string fontDict = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding ";
    if (special) {
        const int toUnicode = w.AddStream("",
                                          "/CIDInit /ProcSet findresource begin 12 dict begin begincmap\n"
                                          "/CMapName /Adobe-Identity-UCS def /CMapType 2 def\n"
                                          "1 begincodespacerange <00> <FF> endcodespacerange\n"
                                          "2 beginbfchar <81> <FB01> <AD> <00AD> endbfchar\n"
                                          "endcmap CMapName currentdict /CMap defineresource pop end end\n");
        fontDict += "<< /BaseEncoding /WinAnsiEncoding /Differences [129 /fi] >> /ToUnicode " + Ref(toUnicode) + " >>";
    } else {
        fontDict += "/WinAnsiEncoding >>";
    }
    const int font = w.Add(fontDict);

    std::vector<int> pageRefs;
    for (size_t i = 0; i < pages_.size(); ++i) pageRefs.push_back(w.Reserve());
    auto pageRef = [&](int index) {
        if (index < 0 || index >= static_cast<int>(pageRefs.size()))
            throw std::runtime_error("PdfBuilder: destination to missing page " + std::to_string(index));
        return pageRefs[index];
    };
    // Widgets are numbered first, so that their pages can list them.
    std::vector<std::vector<int>> pageWidgets(pages_.size()), fieldWidgets(fields_.size());
    for (size_t f = 0; f < fields_.size(); ++f) {
        for (const auto& widget : fields_[f].widgets) {
            pageRef(widget.first);
            fieldWidgets[f].push_back(w.Reserve());
            pageWidgets[size_t(widget.first)].push_back(fieldWidgets[f].back());
        }
    }
    std::vector<int> structElems;
    for (size_t i = 0; structure_ && i < pages_.size(); ++i) structElems.push_back(w.Reserve());

    // Image XObjects are named by their position in the whole file, so the
    // inherited resources can hold all of them at once.
    std::string allImages;
    int imageCount = 0;
    for (size_t p = 0; p < pages_.size(); ++p) {
        const PageLayout& page = pages_[p];
        std::string content = "0 g\n";
        std::string images;
        for (const FilledRect& r : page.rects) {
            content += "q " + Rgb(r.rgb) + " rg " + Num(r.rect.left) + " " + Num(r.rect.bottom) + " " +
                       Num(r.rect.right - r.rect.left) + " " + Num(r.rect.top - r.rect.bottom) + " re f Q\n";
        }
        for (const ImageLayout& im : page.images) {
            if (im.pixelWidth <= 0 || im.pixelHeight <= 0) throw std::runtime_error("PdfBuilder: empty image");
            const size_t pixels = static_cast<size_t>(im.pixelWidth) * im.pixelHeight;
            std::string samples;
            samples.reserve(pixels * 3);
            for (size_t i = 0; i < pixels; ++i) {
                samples += static_cast<char>((im.rgb >> 16) & 0xFF);
                samples += static_cast<char>((im.rgb >> 8) & 0xFF);
                samples += static_cast<char>(im.rgb & 0xFF);
            }
            const std::string size = "/Width " + std::to_string(im.pixelWidth) + " /Height " +
                                     std::to_string(im.pixelHeight) + " /BitsPerComponent 8 /Filter /FlateDecode";
            std::string smask;
            if (im.alpha) {
                const char a = static_cast<char>(std::clamp(*im.alpha, 0, 255));
                const int mask = w.AddStream("/Type /XObject /Subtype /Image /ColorSpace /DeviceGray " + size,
                                             Deflate(std::string(pixels, a)));
                smask = " /SMask " + Ref(mask);
            }
            const int xobject =
                w.AddStream("/Type /XObject /Subtype /Image /ColorSpace /DeviceRGB " + size + smask, Deflate(samples));
            const std::string name = "/Im" + std::to_string(imageCount++);
            images += " " + name + " " + Ref(xobject);
            content += "q " + Num(im.rect.right - im.rect.left) + " 0 0 " + Num(im.rect.top - im.rect.bottom) + " " +
                       Num(im.rect.left) + " " + Num(im.rect.bottom) + " cm " + name + " Do Q\n";
        }
        allImages += images;
        for (const TextRun& t : page.text) {
            content += "BT /F1 " + Num(t.fontSize) + " Tf " + Num(t.x) + " " + Num(t.y) + " Td " +
                       LiteralString(ToLatin1(t.text)) + " Tj ET\n";
        }
        if (!page.extraContent.empty()) content += page.extraContent + "\n";
        if (structure_) content = "/P << /MCID 0 >> BDC\n" + content + "EMC\n";
        const int contents = w.AddStream("", content);

        std::vector<int> annots;
        for (const LinkLayout& link : page.links) {
            std::string dict = "<< /Type /Annot /Subtype /Link /Rect " + RectArray(link.rect) + " /Border [0 0 0] /P " +
                               Ref(pageRefs[p]);
            if (!link.uri.empty())
                dict += " /A << /S /URI /URI " + LiteralString(link.uri) + " >>";
            else if (!link.namedDestination.empty())
                dict += " /Dest " + LiteralString(link.namedDestination);
            else if (link.targetPage >= 0)
                dict += " /Dest " + DestArray(pageRef(link.targetPage), link.fitMode, link.left, link.top, link.zoom,
                                              link.right, link.bottom);
            annots.push_back(w.Add(dict + " >>"));
        }
        for (const AnnotationLayout& a : page.annotations) {
            std::string dict = "<< /Type /Annot /Subtype " + Name(a.subtype) + " /Rect " + RectArray(a.rect) + " /F " +
                               std::to_string(a.flags) + " /P " + Ref(pageRefs[p]);
            if (a.fillRgb) {
                // The form's box is the annotation's rect, so it maps onto it unscaled.
                const int form =
                    w.AddStream("/Type /XObject /Subtype /Form /BBox " + RectArray(a.rect),
                                Rgb(*a.fillRgb) + " rg " + Num(a.rect.left) + " " + Num(a.rect.bottom) + " " +
                                    Num(a.rect.right - a.rect.left) + " " + Num(a.rect.top - a.rect.bottom) + " re f");
                dict += " /AP << /N " + Ref(form) + " >>";
            }
            if (!a.entries.empty()) dict += " " + a.entries;
            annots.push_back(w.Add(dict + " >>"));
        }
        annots.insert(annots.end(), pageWidgets[p].begin(), pageWidgets[p].end());

        const PageLayout& first = pages_.front();
        std::string dict = "<< /Type /Page /Parent " + Ref(pagesRoot);
        if (!inherit_ || page.width != first.width || page.height != first.height)
            dict += " /MediaBox [0 0 " + Num(page.width) + " " + Num(page.height) + "]";
        if (page.cropBox) dict += " /CropBox " + RectArray(*page.cropBox);
        if (inherit_ ? page.rotate != first.rotate : page.rotate != 0)
            dict += " /Rotate " + std::to_string(page.rotate);
        if (!inherit_) {
            dict += " /Resources << /Font << /F1 " + Ref(font) + " >>";
            if (!images.empty()) dict += " /XObject <<" + images + " >>";
            dict += " >>";
        }
        dict += " /Contents " + Ref(contents);
        if (structure_) dict += " /StructParents " + std::to_string(p);
        if (!annots.empty()) {
            dict += " /Annots [";
            for (size_t i = 0; i < annots.size(); ++i) dict += (i ? " " : "") + Ref(annots[i]);
            dict += "]";
        }
        w.Set(pageRefs[p], dict + " >>");
    }

    std::string root = "<< /Type /Pages /Count " + std::to_string(pages_.size()) + " /Kids [";
    for (size_t i = 0; i < pageRefs.size(); ++i) root += (i ? " " : "") + Ref(pageRefs[i]);
    root += "]";
    if (inherit_ && !pages_.empty()) {
        root += " /MediaBox [0 0 " + Num(pages_.front().width) + " " + Num(pages_.front().height) + "]";
        if (pages_.front().rotate != 0) root += " /Rotate " + std::to_string(pages_.front().rotate);
        root += " /Resources << /Font << /F1 " + Ref(font) + " >>";
        if (!allImages.empty()) root += " /XObject <<" + allImages + " >>";
        root += " >>";
    }
    w.Set(pagesRoot, root + " >>");

    std::string cat = "<< /Type /Catalog /Pages " + Ref(pagesRoot);
    std::vector<NamedDestination> tree, dests;
    for (const NamedDestination& d : named_) (d.inNamesTree ? tree : dests).push_back(d);
    std::string names;
    if (!tree.empty()) {
        // A name tree's keys are kept in byte order.
        std::stable_sort(tree.begin(), tree.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        std::string entries = "<< /Names [";
        for (const NamedDestination& d : tree)
            entries += " " + LiteralString(d.name) + " " +
                       DestArray(pageRef(d.page), "XYZ", d.left, d.top, std::nullopt, std::nullopt, std::nullopt);
        names += " /Dests " + Ref(w.Add(entries + " ] >>"));
    }
    if (!attachments_.empty()) {
        auto sorted = attachments_;
        std::stable_sort(sorted.begin(), sorted.end());
        std::string entries = "<< /Names [";
        for (const auto& file : sorted) {
            const int data = w.AddStream("/Type /EmbeddedFile", file.second);
            const int fileSpec = w.Add("<< /Type /Filespec /F " + LiteralString(file.first) + " /UF " +
                                   LiteralString(file.first) + " /EF << /F " + Ref(data) + " >> >>");
            entries += " " + LiteralString(file.first) + " " + Ref(fileSpec);
        }
        names += " /EmbeddedFiles " + Ref(w.Add(entries + " ] >>"));
    }
    if (!names.empty()) cat += " /Names <<" + names + " >>";
    if (!dests.empty()) {
        std::string dict = "<<";
        for (const NamedDestination& d : dests)
            dict += " " + Name(d.name) + " " +
                    DestArray(pageRef(d.page), "XYZ", d.left, d.top, std::nullopt, std::nullopt, std::nullopt);
        cat += " /Dests " + Ref(w.Add(dict + " >>"));
    }

    if (!outline_.empty()) {
        const int root = w.Reserve();
        std::vector<int> nums, parent(outline_.size(), -1);
        std::vector<std::vector<int>> children(outline_.size());
        std::vector<int> top, stack;
        for (size_t i = 0; i < outline_.size(); ++i) {
            nums.push_back(w.Reserve());
            while (!stack.empty() && outline_[size_t(stack.back())].level >= outline_[i].level) stack.pop_back();
            if (stack.empty()) {
                top.push_back(int(i));
            } else {
                parent[i] = stack.back();
                children[size_t(stack.back())].push_back(int(i));
            }
            stack.push_back(int(i));
        }
        // What an entry shows when open, bottom-up (children follow their parent).
        std::vector<int> visible(outline_.size(), 0);
        for (size_t i = outline_.size(); i-- > 0;) {
            for (int c : children[i]) visible[i] += 1 + (outline_[size_t(c)].open ? visible[size_t(c)] : 0);
        }
        auto linkLevel = [&](const std::vector<int>& level, int parentNum) {
            for (size_t k = 0; k < level.size(); ++k) {
                const size_t i = size_t(level[k]);
                const OutlineEntry& e = outline_[i];
                std::string dict = "<< /Title " + LiteralString(ToLatin1(e.title)) + " /Parent " + Ref(parentNum);
                if (k > 0) dict += " /Prev " + Ref(nums[size_t(level[k - 1])]);
                if (k + 1 < level.size()) dict += " /Next " + Ref(nums[size_t(level[k + 1])]);
                if (!children[i].empty()) {
                    dict += " /First " + Ref(nums[size_t(children[i].front())]) + " /Last " +
                            Ref(nums[size_t(children[i].back())]) + " /Count " +
                            std::to_string(e.open ? visible[i] : -visible[i]);
                }
                if (!e.namedDestination.empty())
                    dict += " /Dest " + LiteralString(e.namedDestination);
                else if (e.page >= 0)
                    dict += " /Dest [" + Ref(pageRef(e.page)) + " /XYZ 0 " + Num(pages_[size_t(e.page)].height) + " 0]";
                w.Set(nums[i], dict + " >>");
            }
        };
        linkLevel(top, root);
        for (size_t i = 0; i < outline_.size(); ++i) linkLevel(children[i], nums[i]);
        int count = 0;
        for (int t : top) count += 1 + (outline_[size_t(t)].open ? visible[size_t(t)] : 0);
        w.Set(root, "<< /Type /Outlines /First " + Ref(nums[size_t(top.front())]) + " /Last " +
                        Ref(nums[size_t(top.back())]) + " /Count " + std::to_string(count) + " >>");
        cat += " /Outlines " + Ref(root);
    }

    if (!labels_.empty()) {
        std::string nums;
        for (const PageLabelRange& r : labels_) {
            nums += " " + std::to_string(r.firstPage) + " <<";
            if (!r.style.empty()) nums += " /S /" + r.style;
            if (!r.prefix.empty()) nums += " /P " + LiteralString(r.prefix);
            if (r.start != 1) nums += " /St " + std::to_string(r.start);
            nums += " >>";
        }
        cat += " /PageLabels << /Nums [" + nums + " ] >>";
    }

    if (!fields_.empty()) {
        const int on = w.AddStream("/Type /XObject /Subtype /Form /BBox [0 0 10 10]", "0 g 2 2 6 6 re f");
        const int off = w.AddStream("/Type /XObject /Subtype /Form /BBox [0 0 10 10]", "");
        std::vector<std::string> parentNames;
        std::vector<int> parentNums;
        std::vector<std::vector<int>> parentKids;
        std::vector<int> top, calculated;
        for (size_t f = 0; f < fields_.size(); ++f) {
            const FieldLayout& field = fields_[f];
            if (field.widgets.empty()) throw std::runtime_error("PdfBuilder: field without widgets");
            std::string attrs = " /T " + LiteralString(field.name) + " /DA (/Helv 10 Tf 0 g)";
            int ff = field.flags;
            switch (field.kind) {
                case FieldLayout::Kind::Text:
                    attrs += " /FT /Tx /V " + LiteralString(field.value);
                    break;
                case FieldLayout::Kind::CheckBox:
                    attrs += " /FT /Btn /V " + Name(field.value.empty() ? "Off" : field.value);
                    break;
                case FieldLayout::Kind::Radio:
                    ff |= 49152;
                    attrs += " /FT /Btn /V " + Name(field.value.empty() ? "Off" : field.value);
                    break;
                case FieldLayout::Kind::PushButton:
                    ff |= 65536;
                    attrs += " /FT /Btn";
                    break;
                case FieldLayout::Kind::Signature:
                    attrs += " /FT /Sig";
                    if (field.value == "signed") {
                        attrs += " /V << /Type /Sig /Filter /Adobe.PPKLite /SubFilter /adbe.pkcs7.detached"
                                 " /ByteRange [0 0000000000 0000000000 0000000000] /Contents <" +
                                 std::string(2048, '0') + "> >>";
                    }
                    break;
                case FieldLayout::Kind::Choice:
                case FieldLayout::Kind::List: {
                    if (field.kind == FieldLayout::Kind::Choice) ff |= 131072;
                    attrs += " /FT /Ch /V " + LiteralString(field.value) + " /Opt [";
                    for (const std::string& option : field.options) attrs += " " + LiteralString(option);
                    attrs += " ]";
                    break;
                }
            }
            if (ff != 0) attrs += " /Ff " + std::to_string(ff);
            if (field.maxLength > 0) attrs += " /MaxLen " + std::to_string(field.maxLength);
            if (!field.tooltip.empty()) attrs += " /TU " + LiteralString(field.tooltip);
            if (!field.defaultValue.empty()) {
                const bool button = field.kind == FieldLayout::Kind::CheckBox || field.kind == FieldLayout::Kind::Radio;
                attrs += " /DV " + (button ? Name(field.defaultValue) : LiteralString(field.defaultValue));
            }
            if (!field.validateScript.empty() || !field.calculateScript.empty() || !field.keystrokeScript.empty()) {
                attrs += " /AA <<";
                if (!field.keystrokeScript.empty())
                    attrs += " /K << /S /JavaScript /JS " + LiteralString(field.keystrokeScript) + " >>";
                if (!field.validateScript.empty())
                    attrs += " /V << /S /JavaScript /JS " + LiteralString(field.validateScript) + " >>";
                if (!field.calculateScript.empty())
                    attrs += " /C << /S /JavaScript /JS " + LiteralString(field.calculateScript) + " >>";
                attrs += " >>";
            }
            auto widget = [&](size_t k) {
                const auto& place = field.widgets[k];
                std::string dict = " /Type /Annot /Subtype /Widget /Rect " + RectArray(place.second) + " /F 4 /P " +
                                   Ref(pageRefs[size_t(place.first)]);
                const bool radio = field.kind == FieldLayout::Kind::Radio;
                if (radio || field.kind == FieldLayout::Kind::CheckBox) {
                    const std::string state = radio ? field.options.at(k) : "Yes";
                    dict += " /AP << /N << " + Name(state) + " " + Ref(on) + " /Off " + Ref(off) + " >> >> /AS " +
                            Name(field.value == state ? state : "Off");
                }
                return dict;
            };
            int parentNum = 0;
            if (!field.parent.empty()) {
                const auto found = std::find(parentNames.begin(), parentNames.end(), field.parent);
                if (found == parentNames.end()) {
                    parentNames.push_back(field.parent);
                    parentNums.push_back(w.Reserve());
                    parentKids.emplace_back();
                }
                const size_t at = size_t(std::find(parentNames.begin(), parentNames.end(), field.parent) -
                                         parentNames.begin());
                parentNum = parentNums[at];
            }
            const std::string parentEntry = parentNum > 0 ? " /Parent " + Ref(parentNum) : std::string();
            int fieldNum;
            if (field.widgets.size() == 1) {
                fieldNum = fieldWidgets[f][0];
                w.Set(fieldNum, "<<" + attrs + widget(0) + parentEntry + " >>");
            } else {
                fieldNum = w.Reserve();
                std::string kids;
                for (size_t k = 0; k < field.widgets.size(); ++k) {
                    w.Set(fieldWidgets[f][k], "<<" + widget(k) + " /Parent " + Ref(fieldNum) + " >>");
                    kids += " " + Ref(fieldWidgets[f][k]);
                }
                w.Set(fieldNum, "<<" + attrs + " /Kids [" + kids + " ]" + parentEntry + " >>");
            }
            if (parentNum > 0) {
                const size_t at = size_t(std::find(parentNums.begin(), parentNums.end(), parentNum) - parentNums.begin());
                parentKids[at].push_back(fieldNum);
            } else {
                top.push_back(fieldNum);
            }
            if (field.calculated) calculated.push_back(fieldNum);
        }
        for (size_t i = 0; i < parentNames.size(); ++i) {
            std::string kids;
            for (int kid : parentKids[i]) kids += " " + Ref(kid);
            w.Set(parentNums[i], "<< /T " + LiteralString(parentNames[i]) + " /Kids [" + kids + " ] >>");
            top.push_back(parentNums[i]);
        }
        std::string form = "<< /Fields [";
        for (int t : top) form += " " + Ref(t);
        form += " ] /DA (/Helv 10 Tf 0 g) /DR << /Font << /Helv " + Ref(font) + " >> >>";
        if (!calculated.empty()) {
            form += " /CO [";
            for (int c : calculated) form += " " + Ref(c);
            form += " ]";
        }
        cat += " /AcroForm " + Ref(w.Add(form + " >>"));
    }

    int info = 0;
    if (!title_.empty()) {
        info = w.Add("<< /Title " + LiteralString(ToLatin1(title_)) + " /Producer (PdfBuilder) >>");
        if (xmp_) {
            const int metadata = w.AddStream(
                "/Type /Metadata /Subtype /XML",
                "<?xpacket begin=\"\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
                "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">"
                "<rdf:Description rdf:about=\"\" xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><dc:title><rdf:Alt>"
                "<rdf:li xml:lang=\"x-default\">" +
                    title_ + "</rdf:li></rdf:Alt></dc:title></rdf:Description></rdf:RDF></x:xmpmeta>\n"
                             "<?xpacket end=\"w\"?>");
            cat += " /Metadata " + Ref(metadata);
        }
    }

    if (!layers_.empty()) {
        std::string refs;
        for (const std::string& name : layers_)
            refs += " " + Ref(w.Add("<< /Type /OCG /Name " + LiteralString(ToLatin1(name)) + " >>"));
        cat += " /OCProperties << /OCGs [" + refs + " ] /D << /Order [" + refs + " ] /ON [" + refs + " ] >> >>";
    }

    if (structure_ && !pages_.empty()) {
        const int root = w.Reserve();
        const int document = w.Reserve();
        std::string kids, parents;
        for (size_t p = 0; p < pages_.size(); ++p) {
            w.Set(structElems[p], "<< /Type /StructElem /S /P /P " + Ref(document) + " /Pg " + Ref(pageRefs[p]) +
                                      " /K 0 >>");
            kids += " " + Ref(structElems[p]);
            parents += " " + std::to_string(p) + " [" + Ref(structElems[p]) + "]";
        }
        w.Set(document, "<< /Type /StructElem /S /Document /P " + Ref(root) + " /K [" + kids + " ] >>");
        w.Set(root, "<< /Type /StructTreeRoot /K " + Ref(document) + " /ParentTree << /Nums [" + parents +
                        " ] >> /ParentTreeNextKey " + std::to_string(pages_.size()) + " >>");
        cat += " /StructTreeRoot " + Ref(root) + " /MarkInfo << /Marked true >> /Lang (en)";
    }

    cat += catalogEntries_;
    w.Set(catalog, cat + " >>");

    std::string bytes = w.Finish(catalog, info);
    // A signature's byte range: everything but its /Contents string.
    for (size_t at = bytes.find("/ByteRange [0 0000000000"); at != std::string::npos;
         at = bytes.find("/ByteRange [0 0000000000", at + 1)) {
        const size_t open = bytes.find("/Contents <", at) + 10;
        const size_t close = bytes.find('>', open) + 1;
        char range[48];
        std::snprintf(range, sizeof range, "%010zu %010zu %010zu", open, close, bytes.size() - close);
        bytes.replace(at + 14, 32, range);
    }
    if (encryption_) bytes = EncryptWithMupdf(bytes, *encryption_);
    return bytes;
}

void PdfBuilder::Save(const std::filesystem::path& path) const {
    WriteFile(path, Build());
}

std::string RawPdf(const std::vector<std::string>& objects) {
    return LayOut(objects, "%PDF-1.7\n", [](const std::string&) { return std::string(" /Root 1 0 R"); });
}

std::string RawStream(const std::string& entries, const std::string& data) {
    return "<< " + entries + (entries.empty() ? "" : " ") + "/Length " + std::to_string(data.size()) + " >>\nstream\n" +
           data + "\nendstream";
}

std::string Deflate(const std::string& data) {
    uLongf size = compressBound(data.size());
    std::string out(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(data.data()), data.size(),
                  9) != Z_OK)
        throw std::runtime_error("PdfBuilder: deflate failed");
    out.resize(size);
    return out;
}

bool QpdfClean(const std::filesystem::path& path, const std::string& password) {
    const std::string command = "qpdf --check --password='" + password + "' '" + path.string() + "' > /dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quirelle-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path SamplesDir() {
    return QUIRELLE_SAMPLES_DIR;
}

// An uncompressed RGB TIFF with one directory per frame, each of one colour.
std::string MultiFrameTiff(int width, int height, const std::vector<uint32_t>& colours) {
    std::string out = std::string("II*\0", 4);
    auto put16 = [&](uint16_t v) {
        out.push_back(char(v & 0xFF));
        out.push_back(char(v >> 8));
    };
    auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) out.push_back(char((v >> (8 * i)) & 0xFF));
    };
    auto patch32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) out[at + i] = char((v >> (8 * i)) & 0xFF);
    };
    size_t nextIfdField = out.size();
    put32(0);
    for (uint32_t colour : colours) {
        const uint32_t pixels = static_cast<uint32_t>(out.size());
        for (int i = 0; i < width * height; ++i) out += {char(colour >> 16), char(colour >> 8), char(colour)};
        const uint32_t bits = static_cast<uint32_t>(out.size());
        put16(8), put16(8), put16(8);
        if (out.size() % 2) out.push_back('\0');
        patch32(nextIfdField, static_cast<uint32_t>(out.size()));
        const std::vector<std::array<uint32_t, 4>> entries = {{256, 4, 1, uint32_t(width)},
                                                              {257, 4, 1, uint32_t(height)},
                                                              {258, 3, 3, bits},
                                                              {259, 3, 1, 1},
                                                              {262, 3, 1, 2},
                                                              {273, 4, 1, pixels},
                                                              {277, 3, 1, 3},
                                                              {278, 4, 1, uint32_t(height)},
                                                              {279, 4, 1, uint32_t(width * height * 3)},
                                                              {284, 3, 1, 1}};
        put16(static_cast<uint16_t>(entries.size()));
        for (const auto& [tag, type, count, value] : entries) {
            put16(uint16_t(tag)), put16(uint16_t(type)), put32(count);
            if (type == 3 && count == 1)
                put16(uint16_t(value)), put16(0);
            else
                put32(value);
        }
        nextIfdField = out.size();
        put32(0);
    }
    return out;
}

}  // namespace QuirelleTest
