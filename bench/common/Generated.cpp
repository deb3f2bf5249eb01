#include "common/Generated.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace QuirelleBench {

namespace fs = std::filesystem;

namespace {

// Small deterministic generator, so every run draws the same document.
class Lcg {
public:
    explicit Lcg(uint32_t seed) : state_(seed) {}
    uint32_t Next() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_ >> 8;
    }
    uint32_t Below(uint32_t bound) { return Next() % bound; }

private:
    uint32_t state_;
};

// None of them contains the needle.
const char* const kWords[] = {"amber",  "basalt", "cinder",  "delta",  "ember",    "fjord",  "granite",  "harbor",
                              "inlet",  "jasper", "kestrel", "lagoon", "meridian", "nimbus", "obsidian", "prairie",
                              "ridge",  "sierra", "tundra",  "umber",  "valley",   "willow", "xenon",    "yonder",
                              "zephyr", "of",     "and",     "the",    "a",        "to",     "in",       "over",
                              "beyond", "under",  "near",    "across"};

}  // namespace

HeavyDocument BuildHeavyDocument() {
    using QuirelleTest::FilledRect;
    using QuirelleTest::TextRun;
    HeavyDocument heavy;
    // The builder's page and picture records.
    using Page = std::decay_t<decltype(heavy.builder.Pages().front())>;
    using Picture = decltype(Page::images)::value_type;
    Lcg random(20240611u);
    auto colour = [&] { return random.Next() & 0xFFFFFF; };
    auto sentence = [&](size_t chars) {
        std::string line;
        while (line.size() < chars) {
            if (!line.empty()) line += ' ';
            line += kWords[random.Below(sizeof(kWords) / sizeof(kWords[0]))];
        }
        return line;
    };

    // p0: 4000 filled rectangles in a grid, a few lines of text on top.
    Page shapes;
    for (int row = 0; row < 80; ++row) {
        for (int col = 0; col < 50; ++col) {
            const double left = 36 + col * 10.8;
            const double top = 756 - row * 9.0;
            shapes.rects.push_back(FilledRect{{left, top, left + 9.8, top - 8.0}, colour()});
        }
    }
    for (int line = 0; line < 10; ++line) {
        shapes.text.push_back(TextRun{40, 740.0 - line * 70, 14, sentence(60)});
    }
    heavy.builder.AddPage(shapes);

    // p1: 110 lines of small text, every fifth line carrying the needle once.
    Page text;
    for (int line = 0; line < 110; ++line) {
        std::string words = sentence(125);
        if (line % 5 == 0) {
            const size_t cut = words.find(' ', random.Below(100));
            words.insert(cut == std::string::npos ? words.size() : cut, " quartz");
            ++heavy.needleLines;
        }
        text.text.push_back(TextRun{36, 760.0 - line * 6.6, 6, words});
    }
    heavy.builder.AddPage(text);

    // p2: three large images (one translucent) over 400 rectangles, some text.
    Page images;
    for (int i = 0; i < 400; ++i) {
        const double left = 36 + random.Below(500);
        const double top = 80 + random.Below(680);
        images.rects.push_back(
            FilledRect{{left, top, left + 4 + random.Below(60), top - 4 - random.Below(60)}, colour()});
    }
    images.images.push_back(Picture{{50, 740, 330, 460}, 1200, 1200, 0x3366CC, std::nullopt});
    images.images.push_back(Picture{{280, 600, 560, 320}, 1200, 1200, 0xCC6633, 160});
    images.images.push_back(Picture{{60, 380, 420, 60}, 1600, 1400, 0x55AA55, std::nullopt});
    for (int line = 0; line < 20; ++line) images.text.push_back(TextRun{40, 770.0 - line * 36, 10, sentence(90)});
    heavy.builder.AddPage(images);
    return heavy;
}

void WriteHugeDocument(const fs::path& path, int pages) {
    constexpr int kFanOut = 10;
    std::vector<std::string> objects;  // object n + 1 at index n
    auto add = [&](std::string body) {
        objects.push_back(std::move(body));
        return static_cast<int>(objects.size());
    };
    const int catalog = add("");  // object 1, the root RawPdf names; filled in at the end
    const int font = add("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
    const std::string text = "BT /F1 24 Tf 72 720 Td (One of many pages) Tj ET";
    const int content = add("<< /Length " + std::to_string(text.size()) + " >>\nstream\n" + text + "\nendstream");
    // Leaves first, then each level of nodes above them, up to one root.
    std::vector<int> level;
    for (int i = 0; i < pages; ++i) level.push_back(add(""));
    std::map<int, int> parentOf;
    do {
        std::vector<int> up;
        for (size_t first = 0; first < level.size(); first += kFanOut) {
            const int node = add("");
            up.push_back(node);
            for (size_t k = first; k < std::min(level.size(), first + kFanOut); ++k) parentOf[level[k]] = node;
        }
        level.swap(up);
    } while (level.size() > 1);
    const int root = level[0];
    // Count the pages under every node and write the nodes.
    std::vector<std::vector<int>> kids(objects.size() + 1);
    for (const auto& [child, parent] : parentOf) kids[parent].push_back(child);
    std::vector<long> count(objects.size() + 1, 0);
    const int firstLeaf = content + 1;
    for (int n = firstLeaf; n < firstLeaf + pages; ++n) {
        count[n] = 1;
        objects[n - 1] = "<< /Type /Page /Parent " + std::to_string(parentOf[n]) +
                         " 0 R /MediaBox [0 0 612 792] /Contents " + std::to_string(content) +
                         " 0 R /Resources << /Font << /F1 " + std::to_string(font) + " 0 R >> >> >>";
    }
    for (int n = firstLeaf + pages; n <= static_cast<int>(objects.size()); ++n) {
        std::string body = "<< /Type /Pages";
        if (n != root) body += " /Parent " + std::to_string(parentOf[n]) + " 0 R";
        body += " /Kids [";
        for (int kid : kids[n]) {
            body += std::to_string(kid) + " 0 R ";
            count[n] += count[kid];
        }
        body += "] /Count " + std::to_string(count[n]) + " >>";
        objects[n - 1] = std::move(body);
    }
    objects[catalog - 1] = "<< /Type /Catalog /Pages " + std::to_string(root) + " 0 R >>";

    QuirelleTest::WriteFile(path, QuirelleTest::RawPdf(objects));
}

// Pages of running text (30 lines each), the needle on every 10th page.
void WriteLongDocument(const fs::path& path, int pages) {
    QuirelleTest::PdfBuilder builder;
    Lcg random(12345u);
    for (int p = 0; p < pages; ++p) {
        QuirelleTest::PageLayout page;
        for (int line = 0; line < 30; ++line) {
            std::string text;
            while (text.size() < 90) {
                if (!text.empty()) text += ' ';
                text += kWords[random.Below(sizeof(kWords) / sizeof(kWords[0]))];
            }
            if (p % 10 == 0 && line == 15) text += " quartz";
            page.text.push_back({72, 740.0 - line * 22, 10, text});
        }
        page.rects.push_back({{60, 760, 552, 756}, 0x336699});
        builder.AddPage(page);
    }
    builder.Save(path);
}

void WriteOutlinedDocument(const fs::path& path, int pages) {
    QuirelleTest::PdfBuilder builder;
    builder.AddNumberedPages(pages).AddPageLabels({{0, "r"}, {10, "D"}});
    std::vector<QuirelleTest::OutlineEntry> entries;
    for (int chapter = 0; chapter < pages / 2; ++chapter) {
        entries.push_back({"Chapter " + std::to_string(chapter + 1), 0, 2 * chapter});
        for (int section = 1; section <= 3; ++section) {
            entries.push_back({"Section " + std::to_string(section), 1,
                               std::min(2 * chapter + (section + 1) / 2, pages - 1)});
        }
    }
    builder.AddOutline(entries).Save(path);
}

}  // namespace QuirelleBench
