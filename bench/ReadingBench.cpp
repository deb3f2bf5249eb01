// What a reader asks beyond pages, through the service:
//   tile/3200%     a 512 x 512 tile of the heavy document's busy page at
//                  3200 % (the page recorded by an earlier picture);
//   outline/10000  the outline of a file of 10,000 entries (100 chapters of
//                  99 sections, half of them to named destinations);
//   select/page    a drag over the whole text-heavy page (110 lines), on its
//                  text object (engine), and through the service (text read
//                  again each time, as the service does).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "engine/Reading.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {
namespace {

using namespace Orvane::PDF;

void Tile3200(benchmark::State& st) {
    if (!Ready(st)) return;
    Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[kHeavy].serviceId;
    service.GeneratePageImage(id, 0, 300, 400).get();  // recorded
    const Rect region{300, 400, 316, 384};                // 16 x 16 points: 512 x 512 pixels at 32 a point
    for (auto _ : st) {
        const QImage tile = service.GenerateTile(id, 0, region, 32, IPageInfoObserver::DefaultView).get();
        if (tile.width() != 512 || tile.height() != 512) {
            st.SkipWithError("the tile is not 512 x 512");
            break;
        }
    }
}

std::string OutlineFile() {
    static const std::string path = [] {
        constexpr int kPages = 100, kChapters = 100, kSections = 99;
        std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R /Outlines 3 0 R /Dests 4 0 R >>"};
        std::string kids, dests;
        const int firstPage = 5, firstEntry = firstPage + kPages;
        for (int p = 0; p < kPages; ++p) kids += std::to_string(firstPage + p) + " 0 R ";
        objects.push_back("<< /Type /Pages /Count " + std::to_string(kPages) + " /Kids [" + kids + "] >>");
        objects.push_back("<< /First " + std::to_string(firstEntry) + " 0 R >>");
        for (int p = 0; p < kPages; ++p) dests += "/d" + std::to_string(p) + " [" + std::to_string(firstPage + p) + " 0 R /XYZ 0 700 0] ";
        objects.push_back("<< " + dests + ">>");
        for (int p = 0; p < kPages; ++p) objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>");
        int number = firstEntry;
        for (int c = 0; c < kChapters; ++c) {
            const int chapter = number++;
            const int firstChild = number;
            objects.push_back("");  // the chapter, filled below
            for (int s = 0; s < kSections; ++s) {
                const int page = (c + s) % kPages;
                const std::string target = s % 2 ? "/Dest /d" + std::to_string(page)
                                                 : "/Dest [" + std::to_string(firstPage + page) + " 0 R /Fit]";
                objects.push_back("<< /Title (Section " + std::to_string(c + 1) + "." + std::to_string(s + 1) + ") " +
                                  target + (s + 1 < kSections ? " /Next " + std::to_string(number + 1) + " 0 R" : "") +
                                  " >>");
                ++number;
            }
            objects[chapter - 1] = "<< /Title (Chapter " + std::to_string(c + 1) + ") /Dest [" +
                                   std::to_string(firstPage + c % kPages) + " 0 R /Fit] /First " +
                                   std::to_string(firstChild) + " 0 R" +
                                   (c + 1 < kChapters ? " /Next " + std::to_string(number) + " 0 R" : "") + " >>";
        }
        const std::string file = (std::filesystem::temp_directory_path() / "quirelle-bench-outline.pdf").string();
        QuirelleTest::WriteFile(file, QuirelleTest::RawPdf(objects));
        return file;
    }();
    return path;
}

size_t CountEntries(const std::vector<OutlineEntry>& entries) {
    size_t count = entries.size();
    for (const OutlineEntry& entry : entries) count += CountEntries(entry.children);
    return count;
}

void Outline10000(benchmark::State& st) {
    if (!Ready(st)) return;
    Quirelle& service = Service();
    const Orvane::int64 id = service.OpenDocument(OutlineFile(), "").get().id;
    for (auto _ : st) {
        const std::vector<OutlineEntry> outline = service.GetOutline(id).get();
        if (CountEntries(outline) != 10'000) {
            st.SkipWithError(("the outline has " + std::to_string(CountEntries(outline)) + " entries").c_str());
            break;
        }
    }
    service.CloseDoument(id).get();
}

// From above the first line to below the last one.
const Position kFrom{0, 10'000}, kTo{10'000, -10'000};

void SelectPageEngine(benchmark::State& st) {
    if (!Ready(st)) return;
    std::shared_ptr<ITextObject> text = Inputs()[kHeavy].engineDocument->GetPage(kTextPage)->GetTextObject();
    size_t chars = 0;
    for (auto _ : st) {
        const TextSelection selection = Pdfium::SelectBetween(*text, kFrom, kTo);
        chars = selection.text.size();
        benchmark::DoNotOptimize(selection.rects.data());
    }
    st.counters["bytes"] = static_cast<double>(chars);
}

void SelectPageService(benchmark::State& st) {
    if (!Ready(st)) return;
    Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[kHeavy].serviceId;
    for (auto _ : st) benchmark::DoNotOptimize(service.SelectText(id, kTextPage, kFrom, kTo).get().charCount);
}

[[maybe_unused]] const bool registered = RegisterTimed({{"Reading/tile/3200%/512x512/service", Tile3200},
                                                       {"Reading/outline/10000/service", Outline10000},
                                                       {"Reading/select/page/engine", SelectPageEngine},
                                                       {"Reading/select/page/service", SelectPageService}});

}  // namespace
}  // namespace QuirelleBench
