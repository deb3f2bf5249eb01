// Annotations through the service:
//   Annotations/HighlightSave/append   a highlight added to a 345-page manual
//                                      (interface3.pdf of the corpus; a
//                                      generated 300-page file without it)
//                                      and saved as an update to its bytes;
//   Annotations/HighlightSave/rewrite  the same, the file touched on disk
//                                      after the open, so the save rewrites it;
//   .../selection                      both over a line of text selected on
//                                      the page first, as a reader makes one;
//   .../pagesRead                      both after every page's information was
//                                      asked for (the pages loaded, as in a viewer);
//   Annotations/List10000              the list of a page of 10,000
//                                      annotations (each with contents,
//                                      author, colour and a date).

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <utime.h>

#include <Quirelle>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "bench/common/CorpusDir.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {
namespace {

using namespace Orvane::PDF;
namespace fs = std::filesystem;

fs::path Manual() {
    static const fs::path path = [] {
        const fs::path corpus = CorpusDir() / "x/usr/share/doc/texlive-doc/latex/l3kernel/interface3.pdf";
        if (fs::exists(corpus)) return corpus;
        const fs::path generated = fs::temp_directory_path() / "quirelle-bench-300.pdf";
        QuirelleTest::PdfBuilder().AddNumberedPages(300).Save(generated);
        return generated;
    }();
    return path;
}

// What the document went through between the open and the timed work.
enum class Before { Nothing, Selection, PagesRead };

void HighlightSave(benchmark::State& st, bool rewrite, Before before) {
    Quirelle service(nullptr);
    const fs::path file = fs::temp_directory_path() / "quirelle-bench-annotated.pdf";
    NewAnnotation highlight;
    highlight.lines = {{72, 700, 300, 688}};
    for (auto _ : st) {
        st.PauseTiming();
        fs::copy_file(Manual(), file, fs::copy_options::overwrite_existing);
        const int64_t id = service.OpenDocument(file.string(), "").get().id;
        if (before == Before::PagesRead) {
            for (int page = 0; page < service.GetPageCount(id); ++page) service.GetPageInfo(id, unsigned(page)).get();
        }
        if (before == Before::Selection) {
            const TextSelection line = service.SelectLine(id, 2, {200, 400}).get();
            if (line.rects.empty()) st.SkipWithError("no text on the page");
            highlight.lines = line.rects;
        }
        if (rewrite) {
            struct stat before;
            ::stat(file.c_str(), &before);
            const struct utimbuf later { before.st_atime, before.st_mtime + 10 };
            ::utime(file.c_str(), &later);
        }
        st.ResumeTiming();
        service.CreateAnnotation(id, 2, highlight).get();
        if (!service.SaveDocument(id).get()) st.SkipWithError("not saved");
        st.PauseTiming();
        service.CloseDoument(id).get();
        st.ResumeTiming();
    }
    st.counters["bytes"] = double(fs::file_size(file));
    fs::remove(file);
}

void List10000(benchmark::State& st) {
    const fs::path file = fs::temp_directory_path() / "quirelle-bench-10000-annotations.pdf";
    QuirelleTest::PageLayout page;
    for (int i = 0; i < 10000; ++i) {
        const double x = 20 + (i % 100) * 5.5, y = 20 + (i / 100) * 7.5;
        page.annotations.push_back(
            {"Square",
             {x, y + 5, x + 5, y},
             4,
             std::nullopt,
             "/Contents (Note " + std::to_string(i) + ") /T (Reviewer) /C [1 0 0] /M (D:20240131120000Z)"});
    }
    QuirelleTest::PdfBuilder().AddPage(page).Save(file);
    Quirelle service(nullptr);
    const int64_t id = service.OpenDocument(file.string(), "").get().id;
    service.GetAnnotations(id, 0).get();  // the page and its objects loaded once
    for (auto _ : st) {
        if (service.GetAnnotations(id, 0).get().size() != 10000) st.SkipWithError("not 10,000 annotations");
    }
    service.CloseDoument(id).get();
    fs::remove(file);
}

// Registered in order: the update, then the rewrite, from each starting point.
const int kHighlightSaves = [] {
    const std::pair<const char*, Before> starts[] = {
        {"", Before::Nothing}, {"/selection", Before::Selection}, {"/pagesRead", Before::PagesRead}};
    for (const auto& [suffix, before] : starts) {
        for (const bool rewrite : {false, true}) {
            const std::string name = std::string("Annotations/HighlightSave/") + (rewrite ? "rewrite" : "append") + suffix;
            benchmark::RegisterBenchmark(name.c_str(), HighlightSave, rewrite, before)->Unit(benchmark::kMillisecond);
        }
    }
    return 0;
}();
BENCHMARK(List10000)->Name("Annotations/List10000")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QuirelleBench
