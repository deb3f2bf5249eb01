#include "BenchSupport.h"


#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "orvane/pdf/SystemFontProviderFactory.h"
#include "common/Generated.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {

using namespace Orvane::PDF;

namespace {

// ---- state: made by the first Ready(), released at exit ----

struct State {
    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();

    bool engineInitialised = false;  // this thread's engine context
    QuirelleTest::TempDir temp;
    std::vector<Input> inputs;
    int needleLines = 0;
    std::unique_ptr<Quirelle> service;
    std::unique_ptr<EngineThread> helper;
    std::unique_ptr<RawMuPdf> raw;
    std::unique_ptr<RawMuPdf> rawWithLocks;
};

// Released after main() returns, on the thread that made it: the service's
// documents closed and the service gone first, then the helper, the
// baseline, the engine's documents and this thread's engine context.
State::~State() {
    try {
        for (const Input& input : inputs) {
            if (service && input.serviceId >= 0) service->CloseDoument(input.serviceId).get();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quirelle_bench: closing the service's documents: %s\n", e.what());
    }
    service.reset();
    helper.reset();
    raw.reset();
    rawWithLocks.reset();
    inputs.clear();
    if (engineInitialised) Pdfium::PdfiumInitializer::Instance().Uninitialize();
}

struct Shared {
    bool tried = false;
    std::string failure;
    std::optional<State> state;
};
Shared shared;

State& Current() {
    if (!shared.state) throw std::logic_error("benchmark inputs used before Ready()");
    return *shared.state;
}

// The picture size of every page at kDpi, from the page as displayed.
std::vector<InputPage> MeasurePages(size_t input, const IDocument& document) {
    std::vector<InputPage> pages;
    for (const PageName& name : PageNames()) {
        if (name.input != input) continue;
        if (name.index != pages.size()) throw std::logic_error("PageNames() lists pages out of order");
        const Size size = document.GetPage(name.index)->GetSize();
        InputPage page;
        page.index = name.index;
        page.label = name.label;
        page.width = static_cast<int>(std::lround(size.width * kDpi / 72.0));
        page.height = static_cast<int>(std::lround(size.height * kDpi / 72.0));
        pages.push_back(page);
    }
    if (pages.size() != document.GetPageCount()) {
        throw std::runtime_error(std::string(InputName(input)) + " has " + std::to_string(document.GetPageCount()) +
                                 " pages, the benchmarks are registered for " + std::to_string(pages.size()));
    }
    return pages;
}

// Renders every page three ways and refuses to go on unless the service and
// the engine drew the very same pixels and the baseline drew the same page.
void CheckRenders(State& s) {
    std::fprintf(stderr, "%-22s %11s %10s %10s %10s %12s %12s\n", "page", "pixels", "ink raw", "ink engine", "ink svc",
                 "svc!=engine", "svc!=raw");
    for (size_t in = 0; in < s.inputs.size(); ++in) {
        Input& input = s.inputs[in];
        for (const InputPage& page : input.pages) {
            QImage raw(page.width, page.height, QImage::Format_RGB32);
            s.raw->Render(in, page.index, raw);
            QImage rawLocked(page.width, page.height, QImage::Format_RGB32);
            s.rawWithLocks->Render(in, page.index, rawLocked);
            if (DifferingShare(raw, rawLocked) != 0.0) {
                throw std::runtime_error(input.name + "/" + page.label + ": the baseline differs with locks");
            }
            QImage engine(page.width, page.height, QImage::Format_RGB32);
            EngineRender(*input.engineDocument, page.index, engine);
            const QImage helper = s.helper->Render(in, page);
            if (DifferingShare(helper, engine) != 0.0) {
                throw std::runtime_error(input.name + "/" + page.label + ": the engine differs on another thread");
            }
            const QImage service =
                s.service->GeneratePageImage(input.serviceId, page.index, page.width, page.height).get();

            const std::string name = input.name + "/" + page.label;
            if (service.isNull() || service.width() != page.width || service.height() != page.height ||
                service.format() != QImage::Format_RGB32) {
                throw std::runtime_error(name + ": the service answered no " + std::to_string(page.width) + "x" +
                                         std::to_string(page.height) + " RGB32 picture");
            }
            const size_t inkRaw = CountInk(raw), inkEngine = CountInk(engine), inkService = CountInk(service);
            const double serviceVsEngine = DifferingShare(service, engine);
            const double serviceVsRaw = DifferingShare(service, raw);
            std::fprintf(stderr, "%-22s %5dx%-5d %10zu %10zu %10zu %11.4f%% %11.4f%%\n", name.c_str(), page.width,
                         page.height, inkRaw, inkEngine, inkService, 100 * serviceVsEngine, 100 * serviceVsRaw);
            if (inkRaw == 0) throw std::runtime_error(name + ": the baseline drew nothing");
            // One engine behind both: the pictures must agree exactly.
            if (serviceVsEngine != 0.0) throw std::runtime_error(name + ": the service and the engine differ");
            // Same page, same scale: anything but anti-aliasing noise means
            // the two are not doing the same work.
            if (serviceVsRaw > 0.01) throw std::runtime_error(name + ": the service and the baseline differ");
        }
    }
}

}  // namespace

// ---- the engine ----

void EngineRender(const IDocument& document, unsigned pageIndex, QImage& picture) {
    std::shared_ptr<IPage> page = document.GetPage(pageIndex);
    std::unique_ptr<IPageRenderer> renderer = Pdfium::CreatePageRenderer();
    std::shared_ptr<IBitmap> bitmap = Pdfium::CreateBitmap(picture.width(), picture.height(), IBitmap::Bgrx,
                                                           picture.bits(), static_cast<int>(picture.bytesPerLine()));
    if (!bitmap) throw std::runtime_error("the engine made no bitmap");
    bitmap->FillRect(0, 0, picture.width(), picture.height(), 0xFFFFFFFF);
    renderer->Render(page, bitmap, false);
}

// ---- EngineThread ----

EngineThread::EngineThread() {
    std::promise<void> opened;
    std::future<void> done = opened.get_future();
    thread_ = std::thread([this, &opened] { Run(opened); });
    try {
        done.get();
    } catch (...) {
        thread_.join();  // the thread has given up already
        throw;
    }
}

EngineThread::~EngineThread() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

QImage EngineThread::Render(size_t input, const InputPage& page) {
    std::packaged_task<QImage()> task([this, input, page] {
        QImage picture(page.width, page.height, QImage::Format_RGB32);
        EngineRender(*documents_.at(input), page.index, picture);
        return picture;
    });
    std::future<QImage> result = task.get_future();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        task_ = std::move(task);
    }
    wake_.notify_all();
    return result.get();
}

void EngineThread::Run(std::promise<void>& opened) {
    Pdfium::PdfiumInitializer::Instance().InitLibrary();
    try {
        std::shared_ptr<IFontProvider> fonts = SystemFontProviderFactory().CreateFontProvider();
        for (const Input& input : Current().inputs) {
            documents_.push_back(std::make_shared<Pdfium::PdfDocument>(fonts, input.path.string(), ""));
        }
    } catch (...) {
        documents_.clear();
        Pdfium::PdfiumInitializer::Instance().Uninitialize();
        opened.set_exception(std::current_exception());
        return;
    }
    opened.set_value();
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] { return stop_ || task_.valid(); });
        if (stop_) break;
        std::packaged_task<QImage()> task = std::move(task_);
        lock.unlock();
        task();
        lock.lock();
    }
    lock.unlock();
    documents_.clear();
    Pdfium::PdfiumInitializer::Instance().Uninitialize();
}

// ---- set-up ----

namespace {

void Build(State& s) {
    Pdfium::PdfiumInitializer::Instance().InitLibrary();
    s.engineInitialised = true;

    HeavyDocument heavy = BuildHeavyDocument();
    s.needleLines = heavy.needleLines;
    const std::filesystem::path heavyPath = s.temp.File("heavy.pdf");
    heavy.builder.Save(heavyPath);

    // The engine's documents use the font provider the service uses.
    std::shared_ptr<IFontProvider> fonts = SystemFontProviderFactory().CreateFontProvider();
    const std::filesystem::path paths[] = {QuirelleTest::SamplesDir() / "sample.pdf", heavyPath};
    for (size_t i = 0; i < std::size(paths); ++i) {
        Input input;
        input.name = InputName(i);
        input.path = paths[i];
        input.engineDocument = std::make_shared<Pdfium::PdfDocument>(fonts, input.path.string(), "");
        input.pages = MeasurePages(i, *input.engineDocument);
        s.inputs.push_back(std::move(input));
    }

    s.service = std::make_unique<Quirelle>(nullptr);
    for (Input& input : s.inputs) {
        input.serviceId = s.service->OpenDocument(input.path.string(), "").get().id;
        if (input.serviceId < 0) throw std::runtime_error("the service cannot open " + input.path.string());
    }
    s.helper = std::make_unique<EngineThread>();
    s.raw = std::make_unique<RawMuPdf>(false);
    s.rawWithLocks = std::make_unique<RawMuPdf>(true);
    for (const Input& input : s.inputs) {
        s.raw->Open(input.path.string());
        s.rawWithLocks->Open(input.path.string());
    }

    // Also warms every cache (fonts, decoded images) before timing starts.
    CheckRenders(s);
}

}  // namespace

const char* InputName(size_t input) {
    return input == kSample ? "sample" : "heavy";
}

const std::vector<PageName>& PageNames() {
    static const std::vector<PageName> names = {{kSample, 0, "p0"},
                                                {kSample, 1, "p1"},
                                                {kSample, 2, "p2"},
                                                {kHeavy, 0, "p0_shapes"},
                                                {kHeavy, kTextPage, "p1_text"},
                                                {kHeavy, 2, "p2_images"}};
    return names;
}

bool Ready(benchmark::State& st) {
    if (!shared.tried) {
        shared.tried = true;
        try {
            Build(shared.state.emplace());
        } catch (const std::exception& e) {
            shared.failure = e.what();
            shared.state.reset();
            std::fprintf(stderr, "quirelle_bench: set-up failed: %s\n", e.what());
        }
    }
    if (shared.state) return true;
    st.SkipWithError(("set-up failed: " + shared.failure).c_str());
    return false;
}

std::vector<Input>& Inputs() {
    return Current().inputs;
}
const InputPage& PageOf(const PageName& name) {
    return Current().inputs.at(name.input).pages.at(name.index);
}
Quirelle& Service() {
    return *Current().service;
}
RawMuPdf& Raw() {
    return *Current().raw;
}
RawMuPdf& RawWithLocks() {
    return *Current().rawWithLocks;
}
EngineThread& HelperThread() {
    return *Current().helper;
}
int NeedleLines() {
    return Current().needleLines;
}

}  // namespace QuirelleBench
