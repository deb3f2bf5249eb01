#include "fuzz/FuzzSupport.h"

#include <glog/logging.h>
#include <unistd.h>

#include <QBuffer>
#include <QImage>
#include <algorithm>
#include <fstream>
#include <functional>
#include <system_error>

#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "tests/support/DamagedPdf.h"
#include "tests/support/HostilePdf.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleFuzz {
namespace {

namespace fs = std::filesystem;
using namespace Orvane::PDF;
using QuirelleTest::PdfBuilder;

// Runs one call; what it throws is an answer, not a fault.
void Attempt(const std::function<void()>& call) {
    try {
        call();
    } catch (...) {
    }
}

template <class T>
void Await(std::future<T>&& future) {
    Attempt([&] { future.get(); });
}

class Scratch {
public:
    Scratch() {
        std::error_code ec;
        const fs::path base = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
        path_ = base / ("quirelle-fuzz-" + std::to_string(::getpid()));
        fs::create_directories(path_);
    }
    ~Scratch() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& Path() const { return path_; }

private:
    fs::path path_;
};

std::string Encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes.toStdString();
}

void PutLength(std::string& out, size_t n) {
    for (int i = 0; i < 4; ++i) out += char((n >> (8 * i)) & 0xFF);
}

}  // namespace

std::vector<std::string> FixtureDocuments() {
    using namespace QuirelleTest;
    PageLayout rich;
    rich.text = {{72, 720, 20, "Caf\xC3\xA9 cr\xC3\xA8me search-able words"}, {72, 690, 12, "second line of text"}};
    rich.rects = {{{100, 500, 200, 400}, 0xFF0000}};
    rich.images = {{{300, 500, 400, 400}, 4, 4, 0x00FF00, 128}, {{420, 500, 520, 400}, 8, 8, 0x0000FF, std::nullopt}};
    rich.annotations = {{"Square", {100, 300, 200, 200}, 4, 0x0000FF}, {"Text", {300, 300, 400, 200}, 2}};
    rich.links = {{{72, 720, 300, 690}, "https://example.org/a(b)"}, {{72, 680, 300, 660}, "", 1, 72, 600, 2}};
    rich.links.push_back({{72, 650, 300, 630}});
    rich.links.back().namedDestination = "end";
    PageLayout turned;
    turned.rotate = 90;
    turned.cropBox = Rect{10, 700, 500, 20};
    turned.text = {{72, 600, 12, "turned page"}};
    turned.extraContent = "q 1 0 0 1 50 50 cm 0 0 1 rg 0 0 20 20 re f Q";

    std::vector<std::string> documents;
    documents.push_back(PdfBuilder().AddNumberedPages(1).Build());
    documents.push_back(PdfBuilder()
                            .AddPage(rich)
                            .AddPage(turned)
                            .AddNumberedPages(2)
                            .AddNamedDestination("end", 3, 50, 600)
                            .AddNamedDestination("old", 1, 0, 0, false)
                            .Build());
    documents.push_back(PdfBuilder().AddPage(rich).AddNumberedPages(3, 300, 400).InheritAttributes().Build());
    using Method = Encryption::Method;
    for (Method method : {Method::Rc4_40, Method::Rc4_128, Method::Aes128, Method::Aes256}) {
        documents.push_back(PdfBuilder().AddPage(rich).AddNumberedPages(1).Encrypt({"", "owner", -4 & ~16, method}).Build());
    }
    return documents;
}

const fs::path& ScratchDir() {
    static Scratch scratch;
    return scratch.Path();
}

fs::path WriteScratch(const std::string& name, const std::string& bytes) {
    const fs::path path = ScratchDir() / name;
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
    return path;
}

void ExerciseEngine(const std::string& bytes) {
    std::shared_ptr<Pdfium::PdfDocument> doc;
    try {
        doc = std::make_shared<Pdfium::PdfDocument>(nullptr, Orvane::ioPath(WriteScratch("engine.pdf", bytes)), "");
    } catch (...) {
        return;
    }
    const unsigned count = doc->GetPageCount();
    std::vector<unsigned> indices = {0};
    if (count > 1) indices.push_back(count - 1);
    for (unsigned index : indices) {
        Attempt([&] {
            std::shared_ptr<IPage> page = doc->GetPage(index);
            const Rect box = page->GetPageRect();
            const double cx = (box.left + box.right) / 2, cy = (box.top + box.bottom) / 2;
            page->GetSize();
            page->GetRotation();
            std::vector<unsigned char> pixels(48 * 48 * 4);
            std::shared_ptr<IBitmap> bitmap = Pdfium::CreateBitmap(48, 48, IBitmap::Bgrx, pixels.data(), 48 * 4);
            for (bool print : {false, true}) Attempt([&] { Pdfium::CreatePageRenderer()->Render(page, bitmap, print); });
            Attempt([&] {
                std::shared_ptr<ITextObject> text = page->GetTextObject();
                const std::wstring all = text->GetText();
                const int chars = text->GetCharCount();
                for (int i = 0; i < std::min(chars, 8); ++i) text->GetCharBox(i);
                text->GetTextRects(0, chars);
                const std::wstring needle = all.substr(0, std::min<size_t>(all.size(), 4));
                for (int flags : {0, 15}) text->FindText(needle.empty() ? L"e" : needle, flags);
            });
            Attempt([&] {
                for (const auto& annotation : page->GetAllAnnotations()) {
                    annotation->GetType();
                    const Rect r = annotation->GetRect();
                    annotation->Contains({(r.left + r.right) / 2, (r.top + r.bottom) / 2});
                    if (auto link = std::dynamic_pointer_cast<ILinkAnnotation>(annotation)) {
                        link->GetLinkType();
                        link->GetDestination();
                        link->GetUri();
                    }
                }
            });
            Attempt([&] {
                page->GetObjectIndices();
                const int objects = page->GetObjectCount();
                for (int i = 0; i < std::min(objects, 16); ++i) {
                    auto object = page->GetObject(i);
                    object->GetKind();
                    object->GetBounds();
                }
                for (int kind = 1; kind <= 5; ++kind) page->GetObjectBoundsAt(cx, cy, kind);
            });
            Attempt([&] { page->SetRotation(IPage::Rotate90); });
        });
    }
    Attempt([&] {
        auto target = std::make_shared<Pdfium::PdfDocument>(nullptr);
        auto importer = Pdfium::CreatePageImporter();
        Attempt([&] { importer->ImportAllPages(doc, target, 0); });
        Attempt([&] { importer->ImportPages(doc, indices, target, 1); });
        target->Save(ScratchDir() / "engine-import.pdf", 0);
    });
    Attempt([&] { doc->Save(ScratchDir() / "engine-save.pdf", 0); });
    Attempt([&] { doc->DeletePage(0); });
    Attempt([&] { doc->CreatePage(0, 200, 200); });
    Attempt([&] { doc->RemoveHiddenObjects(); });
    Attempt([&] { doc->FixupDocument(); });
    Attempt([&] { doc->SaveWithVersion(ScratchDir() / "engine-save.pdf", 17, 0); });
}

void ExerciseService(Quirelle& service, int64_t id) {
    int count = 0;
    Attempt([&] { count = service.GetPageCount(id); });
    Attempt([&] {
        service.GetDocumentPath(id);
        service.IsProtected(id);
        service.IsEditContentProtected(id);
        service.IsEditPagesProtected(id);
        service.IsExtractingPagesProtected(id);
        service.IsCopyTextAndGraphicsProtected(id);
        service.IsPrintProtected(id);
        service.IsPrintLowResolution(id);
    });
    std::vector<unsigned> pages = {0u, unsigned(std::max(count - 1, 0)), unsigned(count)};
    for (unsigned page : pages) {
        Await(service.GetPageInfo(id, page));
        Await(service.GeneratePageImage(id, page, 40, 30));
        Await(service.GeneratePageImage(id, page, 30, 40, IPageInfoObserver::ViewType(2)));
        for (int kind = 1; kind <= 5; ++kind) Await(service.GetPageObjectBounds(id, page, 100, 100, kind));
        Await(service.IsInsideLinkArea(id, page, 100, 700));
        Await(service.HandleLink(id, page, 100, 700));
        Attempt([&] {
            auto text = service.GetPageTextObject(id, page).get();
            if (text) text->FindText(L"e", 0);
        });
        Attempt([&] {
            service.GeneratePageImageAsync(id, page, 20, 20, IPageInfoObserver::ViewType(1));
            service.GetPageInfoAsync(id, page, IPageInfoObserver::ViewType(0));
            service.CancelAsyncTasks(id, page, IPageInfoObserver::ViewType(1));
        });
    }
    Attempt([&] {
        const int64_t search = service.SearchInDocument(id, 0, L"page", [](unsigned, const auto&, const auto&) {});
        Await(service.GetPageInfo(id, 0));
        service.StopSearch(search);
    });
    Await(service.SaveDocumentAs(id, ScratchDir() / "service-save.pdf"));
    Await(service.ExportPagesTo(id, {0}, ScratchDir() / "service-export.pdf"));
    Attempt([&] {
        const int64_t copy = service.CreateDocument().get().id;
        Await(service.ImportAllPages(id, copy, 0));
        Await(service.ImportPages(id, copy, pages, 1));
        Await(service.CloseDoument(copy));
    });
    Await(service.RotatePage(id, 0, IPDFProvider::PageRotation(0)));
    Await(service.AddBlankPage(id, 1, 200, 100));
    Await(service.MovePages(id, {0}, unsigned(count)));
    Await(service.DeletePages(id, {unsigned(count)}));
    Attempt([&] {
        std::packaged_task<void(std::shared_ptr<IDocument>&)> task([](std::shared_ptr<IDocument>& doc) {
            if (doc) doc->FixupDocument();
        });
        auto done = task.get_future();
        service.ExecuteWithDocument(id, std::move(task));
        done.get();
    });
    Await(service.SaveDocument(id));
}

void RunServiceProgram(Quirelle& service, const uint8_t* data, size_t size) {
    size_t at = 0;
    auto byte = [&]() -> unsigned { return at < size ? data[at++] : 0u; };
    auto document = [&](const char* name) {
        size_t length = 0;
        for (int i = 0; i < 4; ++i) length |= size_t(byte()) << (8 * i);
        length = std::min(length, size - at);
        const std::string bytes(reinterpret_cast<const char*>(data) + at, length);
        at += length;
        int64_t id = int64_t(1) << 40;  // not open
        Attempt([&] { id = service.OpenDocument(WriteScratch(name, bytes), "").get().id; });
        return id;
    };
    const int64_t ids[2] = {document("service-a.pdf"), document("service-b.pdf")};
    std::vector<int64_t> searches;
    for (int request = 0; request < 48 && at < size; ++request) {
        const unsigned code = byte();
        const int64_t id = ids[code >> 7];
        const int64_t other = ids[1 - (code >> 7)];
        const unsigned page = byte() % 8;
        switch (code % 20) {
        case 0: Attempt([&] { service.GetPageCount(id); }); break;
        case 1: Await(service.GetPageInfo(id, page)); break;
        case 2: Await(service.GeneratePageImage(id, page, int(byte() % 64) + 1, int(byte() % 64) + 1)); break;
        case 3:
            Attempt([&] {
                const auto view = IPageInfoObserver::ViewType(byte() % 3);
                service.GeneratePageImageAsync(id, page, 16, 16, view);
                if (byte() & 1) service.CancelAsyncTasks(id, page, view);
            });
            break;
        case 4: Await(service.GetPageObjectBounds(id, page, int(byte() * 3), int(byte() * 3), int(byte() % 7))); break;
        case 5:
            Attempt([&] {
                auto text = service.GetPageTextObject(id, page).get();
                if (text) text->FindText(std::wstring(1, wchar_t('a' + byte() % 26)), int(byte() % 16));
            });
            break;
        case 6: Await(service.RotatePage(id, page, IPDFProvider::PageRotation(byte() % 3))); break;
        case 7: Await(service.MovePages(id, {page, unsigned(byte() % 8)}, byte() % 8)); break;
        case 8: Await(service.ImportPages(other, id, {page}, int(byte() % 8) - 1)); break;
        case 9: Await(service.ImportAllPages(other, id, int(byte() % 8) - 1)); break;
        case 10: Await(service.SaveDocumentAs(id, ScratchDir() / "service-out.pdf")); break;
        case 11: Await(service.ExportPagesTo(id, {page}, ScratchDir() / "service-export.pdf")); break;
        case 12: Await(service.IsInsideLinkArea(id, page, int(byte() * 3), int(byte() * 3))); break;
        case 13: Await(service.DeletePages(id, {page})); break;
        case 14: Await(service.AddBlankPage(id, page, int(byte()) + 1, int(byte()) + 1)); break;
        case 15: Await(service.HandleLink(id, page, int(byte() * 3), int(byte() * 3))); break;
        case 16:
            Attempt([&] {
                searches.push_back(service.SearchInDocument(id, page, std::wstring(1, wchar_t('a' + byte() % 26)),
                                                            [](unsigned, const auto&, const auto&) {}));
            });
            break;
        case 17:
            if (!searches.empty()) service.StopSearch(searches[byte() % searches.size()]);
            break;
        case 18: Await(service.SaveDocument(id)); break;
        case 19: Attempt([&] { service.IsCopyTextAndGraphicsProtected(id), service.GetDocumentPath(id); }); break;
        }
    }
    for (int64_t search : searches) service.StopSearch(search);
    for (int64_t id : ids) Await(service.CloseDoument(id));
}

std::string ServiceProgram(const std::string& first, const std::string& second, const std::string& requests) {
    std::string out;
    PutLength(out, first.size());
    out += first;
    PutLength(out, second.size());
    return out + second + requests;
}

void QuietLogs() {
    FLAGS_minloglevel = google::GLOG_ERROR;
}

Quirelle& SharedService() {
    static const bool quiet = (QuietLogs(), true);
    (void)quiet;
    ScratchDir();  // made first, so that it outlives the service
    static Quirelle service(nullptr);
    return service;
}

std::vector<std::string> EngineSeeds() {
    // The fixtures, one file of every class of damage the engine repairs on
    // open (the fuzzer starts inside the repair paths) and one of every class
    // of endless work.
    std::vector<std::string> seeds = FixtureDocuments();
    for (const QuirelleTest::DamagedPdf& damaged : QuirelleTest::DamagedPdfs()) seeds.push_back(damaged.bytes);
    for (const QuirelleTest::HostilePdf& hostile : QuirelleTest::HostilePdfs()) seeds.push_back(hostile.bytes);
    return seeds;
}

std::vector<std::string> ImageSeeds() {
    // The first byte picks the file's extension; the rest is the image.
    QImage colour(12, 9, QImage::Format_RGB32);
    colour.fill(0xFF3366AA);
    QImage alpha(7, 5, QImage::Format_ARGB32);
    alpha.fill(0x80FF0000);
    const QImage gray = colour.convertToFormat(QImage::Format_Grayscale8);
    std::vector<std::string> seeds;
    const char* formats[] = {"PNG", "JPG", "BMP", "TIFF"};
    for (int i = 0; i < 4; ++i) {
        for (const QImage* image : std::initializer_list<const QImage*>{&colour, &alpha, &gray}) seeds.push_back(char(i) + Encode(*image, formats[i]));
    }
    return seeds;
}

std::vector<std::string> ServiceSeeds() {
    const std::vector<std::string> docs = FixtureDocuments();
    std::vector<std::string> seeds;
    std::string every;
    for (unsigned code = 0; code < 20; ++code) every += {char(code), char(code % 3), '\x20', '\x20', '\x01', '\x01'};
    std::string second = every;
    for (char& c : second) c = char(c | 0x80);
    for (size_t i = 0; i < docs.size(); ++i) {
        seeds.push_back(ServiceProgram(docs[i], docs[(i + 1) % docs.size()], i % 2 ? every : second));
    }
    // Edits, imports and saves of repaired documents.
    for (const QuirelleTest::DamagedPdf& damaged : QuirelleTest::DamagedPdfs()) {
        seeds.push_back(ServiceProgram(damaged.bytes, docs[0], every));
    }
    return seeds;
}

}  // namespace QuirelleFuzz
