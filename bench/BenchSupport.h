#pragma once

// What every benchmark shares: the input documents (the bundled sample and a
// heavy document generated on first use), the ways of rendering a page (plain
// MuPDF, the engine, the service) and the checks that make sure they all draw
// the same pixels before anything is timed.
//
// The benchmarks are registered when the program starts, for the pages listed
// in PageNames(); everything else is made by the first benchmark that runs
// (Ready()), on the benchmark thread, which from then on holds an engine
// context (PdfiumInitializer::InitLibrary). It is all released at exit.

#include <benchmark/benchmark.h>

#include <QImage>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Quirelle"
#include "common/RawMuPdf.h"
#include "engine/Handles.h"
#include "orvane/pdf/Document.h"

namespace QuirelleBench {

// Every page is rendered at this resolution.
constexpr double kDpi = 150.0;

// The word the text-heavy page repeats; FindText must find it NeedleLines() times.
inline const std::wstring kNeedle = L"quartz";

// The inputs, in this order, and the pages benchmarked (all of them).
constexpr size_t kSample = 0;
constexpr size_t kHeavy = 1;
constexpr unsigned kTextPage = 1;  // the heavy document's text-heavy page
struct PageName {
    size_t input;
    unsigned index;
    const char* label;
};
const char* InputName(size_t input);
const std::vector<PageName>& PageNames();

struct InputPage {
    unsigned index = 0;
    std::string label;  // "p0", "p1"... plus what the page holds
    int width = 0;      // pixels at kDpi, from the page as displayed
    int height = 0;
};

struct Input {
    std::string name;
    std::filesystem::path path;
    std::vector<InputPage> pages;
    // Opened once, on first use, and kept open, like a viewer keeps its document.
    std::shared_ptr<Orvane::PDF::IDocument> engineDocument;  // the benchmark thread's context
    Orvane::int64 serviceId = -1;
};

// Call first in every benchmark. The first call builds the heavy document,
// opens every input every way, renders every page every way and compares the
// pictures. False (and the benchmark skipped with the reason) when that failed.
bool Ready(benchmark::State& st);

// Valid once Ready() answered true.
std::vector<Input>& Inputs();
const InputPage& PageOf(const PageName& name);
Orvane::PDF::Quirelle& Service();
// How many lines of the text-heavy page carry kNeedle.
int NeedleLines();

// ---- plain MuPDF: the baseline (common/RawMuPdf.h), every input opened ----

// Document numbers in both are the input numbers.
RawMuPdf& Raw();
RawMuPdf& RawWithLocks();

// ---- the engine, called directly ----

// GetPage, CreatePageRenderer, CreateBitmap over the picture, FillRect white,
// Render: what the service does for one picture, without the service.
void EngineRender(const Orvane::PDF::IDocument& document, unsigned page, QImage& picture);

// The least any design with a worker thread pays: one std::thread with
// documents of its own (opened on it, as engine documents must be), handed
// one page at a time through a mutex, a condition variable and a
// std::packaged_task; it makes the picture and renders it with EngineRender.
class EngineThread {
public:
    EngineThread();  // returns once the thread has opened every input
    ~EngineThread();
    EngineThread(const EngineThread&) = delete;
    EngineThread& operator=(const EngineThread&) = delete;

    QImage Render(size_t input, const InputPage& page);

private:
    void Run(std::promise<void>& opened);

    std::mutex mutex_;
    std::condition_variable wake_;
    std::packaged_task<QImage()> task_;                               // guarded by mutex_; valid while waiting
    bool stop_ = false;                                               // guarded by mutex_
    std::vector<std::shared_ptr<Orvane::PDF::IDocument>> documents_;  // the thread's own
    std::thread thread_;
};

EngineThread& HelperThread();

}  // namespace QuirelleBench
