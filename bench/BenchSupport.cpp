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
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {

using namespace Orvane::PDF;

namespace {

// ---- the heavy document ----

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

struct HeavyDocument {
    QuirelleTest::PdfBuilder builder;
    int needleLines = 0;
};

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
