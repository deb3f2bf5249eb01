// The command line's PNG writer: time and bytes per page at each zlib level,
// next to Qt's own PNG writer, on pages of a real manual drawn at 150 dpi (the
// corpus of bench/fetch-corpus.sh; the bundled sample without it). The
// counters say bytes per page; bench/cli-vs-mutool.sh compares whole runs.

#include <benchmark/benchmark.h>

#include <QBuffer>
#include <QImage>
#include <Quirelle>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Pictures.h"
#include "common/CorpusDir.h"

namespace {

// A title page, a page of running text and a page with a table, as drawn for
// `quirelle render --dpi 150`.
const std::vector<QImage>& Pages() {
    static const std::vector<QImage> pages = [] {
        const std::filesystem::path manual =
            QuirelleBench::CorpusDir() / "x/usr/share/doc/texlive-doc/latex/l3kernel/interface3.pdf";
        const bool corpus = std::filesystem::exists(manual);
        const std::string file = corpus ? manual.string() : QUIRELLE_SAMPLES_DIR "/sample.pdf";
        Orvane::PDF::Quirelle service(nullptr);
        const auto opened = service.OpenDocument(file, "").get();
        std::vector<QImage> images;
        for (unsigned page : corpus ? std::vector<unsigned>{0, 40, 200} : std::vector<unsigned>{0, 1, 2}) {
            const auto size = service.GetPageInfo(opened.id, page).get().size;
            images.push_back(
                service.GeneratePageImage(opened.id, page, int(size.width * 150 / 72), int(size.height * 150 / 72))
                    .get());
        }
        return images;
    }();
    return pages;
}

void WritePng(benchmark::State& state) {
    const int level = static_cast<int>(state.range(0));
    size_t bytes = 0, pages = 0;
    for (auto _ : state) {
        for (const QImage& page : Pages()) {
            char* data = nullptr;
            size_t size = 0;
            std::FILE* out = open_memstream(&data, &size);
            if (!QuirelleCli::WritePng(page, level, out)) state.SkipWithError("WritePng failed");
            std::fclose(out);
            std::free(data);
            bytes += size;
            ++pages;
        }
    }
    state.counters["bytes/page"] = double(bytes) / pages;
    state.counters["pages/s"] = benchmark::Counter(double(pages), benchmark::Counter::kIsRate);
}
BENCHMARK(WritePng)->Arg(1)->Arg(3)->Arg(6)->Arg(9)->Unit(benchmark::kMillisecond);

// Qt's writer at its default level (quality -1); it filters every row
// adaptively and always writes RGB.
void QtWritePng(benchmark::State& state) {
    size_t bytes = 0, pages = 0;
    for (auto _ : state) {
        for (const QImage& page : Pages()) {
            QBuffer buffer;
            buffer.open(QIODevice::WriteOnly);
            page.save(&buffer, "PNG");
            bytes += buffer.size();
            ++pages;
        }
    }
    state.counters["bytes/page"] = double(bytes) / pages;
    state.counters["pages/s"] = benchmark::Counter(double(pages), benchmark::Counter::kIsRate);
}
BENCHMARK(QtWritePng)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
