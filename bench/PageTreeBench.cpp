// Page trees of many pages: opening, exporting one page and importing all of
// them must grow linearly with the page count (one walk of the tree, not one
// lookup per index). The documents hold all pages in one flat /Kids array,
// the shape that made per-index lookups quadratic.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {
namespace {

using namespace Orvane::PDF;

// A file of `pages` pages sharing one content stream, made once per size.
std::string FlatTree(int pages) {
    static QuirelleTest::TempDir dir;
    static std::map<int, std::string> made;
    auto found = made.find(pages);
    if (found != made.end()) return found->second;
    std::string kids;
    std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>", "",
                                        QuirelleTest::RawStream("", "0 0 1 rg 10 10 50 50 re f")};
    for (int i = 0; i < pages; ++i) {
        kids += std::to_string(objects.size() + 1) + " 0 R ";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Resources << >> /Contents 3 0 R >>");
    }
    objects[1] = "<< /Type /Pages /Count " + std::to_string(pages) + " /Kids [" + kids + "] >>";
    const std::string path = (dir.Path() / ("flat" + std::to_string(pages) + ".pdf")).string();
    QuirelleTest::WriteFile(path, QuirelleTest::RawPdf(objects));
    return made[pages] = path;
}

// The engine on the benchmark thread, with a budget large enough to measure.
void Start() {
    static const bool started = [] {
        Pdfium::PdfiumInitializer::Instance().InitLibrary();
        EngineLimits limits = GetEngineLimits();
        limits.timeBudget = std::chrono::minutes(10);
        SetEngineLimits(limits);
        return true;
    }();
    (void)started;
}

void BM_OpenLargePageTree(benchmark::State& state) {
    Start();
    const std::string path = FlatTree(int(state.range(0)));
    for (auto _ : state) {
        Pdfium::PdfDocument document(nullptr, path, "");
        benchmark::DoNotOptimize(document.GetPage(document.GetPageCount() - 1));
    }
}

void BM_ExportOnePageOfLargePageTree(benchmark::State& state) {
    Start();
    const int pages = int(state.range(0));
    const std::string path = FlatTree(pages);
    QuirelleTest::TempDir out;
    auto source = std::make_shared<Pdfium::PdfDocument>(nullptr, path, "");
    auto importer = Pdfium::CreatePageImporter();
    for (auto _ : state) {
        source->RemoveHiddenObjects();
        auto exported = std::make_shared<Pdfium::PdfDocument>(nullptr);
        importer->ImportPages(source, {unsigned(pages / 2)}, exported, 0);
        exported->Save((out.Path() / "one.pdf").string(), 0);
    }
}

void BM_ImportAllOfLargePageTree(benchmark::State& state) {
    Start();
    const std::string path = FlatTree(int(state.range(0)));
    auto source = std::make_shared<Pdfium::PdfDocument>(nullptr, path, "");
    auto importer = Pdfium::CreatePageImporter();
    for (auto _ : state) {
        auto target = std::make_shared<Pdfium::PdfDocument>(nullptr);
        importer->ImportAllPages(source, target, 0);
        benchmark::DoNotOptimize(target->GetPageCount());
    }
}

BENCHMARK(BM_OpenLargePageTree)->Arg(20000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExportOnePageOfLargePageTree)->Arg(20000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImportAllOfLargePageTree)->Arg(20000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QuirelleBench
