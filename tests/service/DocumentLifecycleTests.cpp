// Opening, creating, saving and closing through the service: ids, the open
// failures, paths and their log lines, purging on close, shutdown, many callers.

#include <glog/logging.h>

#include <atomic>
#include <thread>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// Captures the service's log lines while it lives.
class LogCapture : public google::LogSink {
public:
    LogCapture() { google::AddLogSink(this); }
    ~LogCapture() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const google::LogMessageTime&,
              const char* message, size_t length) override {
        if (std::string(fullFilename) == "library/quirelle/Quirelle") lines_.Add({severity, {message, length}});
    }
    // How many of the service's lines of the severity equal text (or start with it).
    int Count(google::LogSeverity severity, const std::string& text, bool prefix = false) {
        int count = 0;
        for (const auto& [s, line] : lines_.All())
            count += s == severity && (prefix ? line.rfind(text, 0) == 0 : line == text);
        return count;
    }

private:
    Recorded<std::pair<google::LogSeverity, std::string>> lines_;
};

using DocumentLifecycle = ServiceTest;

TEST_F(DocumentLifecycle, IdsCountUpAndFailedOpensTakeNone) {
    LogCapture log;
    const auto pdf = NumberedPdf(2);
    const auto locked = temp.File("locked.pdf");
    PdfBuilder().AddNumberedPages(1).Encrypt({"user", "owner", -4}).Save(locked);
    const auto notPdf = temp.File("notes.pdf");
    WriteFile(notPdf, "just some text, no PDF here\n");
    const auto fakeImage = temp.File("scan.TIFF");  // the image route, whatever the case
    WriteFile(fakeImage, "not a picture");

    EXPECT_EQ(Await(service->CreateDocument()).id, 0);
    EXPECT_EQ(Open(pdf), 1);
    Await(service->CloseDoument(0));
    EXPECT_EQ(Open(pdf), 2);
    // File failures are logged only when verbose.
    const std::string prefix = "Orvane::PDF::Quirelle::Impl::OpenDocument: Cannot create new document. Error: ";
    const int savedVerbosity = FLAGS_v;
    for (int verbosity : {0, 10}) {
        FLAGS_v = verbosity;
        for (const auto& path : {notPdf, fakeImage, temp.File("missing.pdf")}) {
            const auto failed = Await(service->OpenDocument(path.string(), ""));
            EXPECT_EQ(failed.id, -1) << path;
            EXPECT_FALSE(failed.passwordError) << path;
        }
        if (verbosity == 0) {
            EXPECT_EQ(log.Count(google::GLOG_INFO, prefix, true), 0);
        }
    }
    FLAGS_v = savedVerbosity;
    EXPECT_EQ(log.Count(google::GLOG_INFO, prefix + "Invalid image format for file: " + fakeImage.string()), 1);
    for (const char* password : {"", "guess"}) {
        const auto failed = Await(service->OpenDocument(locked.string(), password));
        EXPECT_EQ(failed.id, -1);
        EXPECT_TRUE(failed.passwordError) << password;
    }
    const auto retried = Await(service->OpenDocument(locked.string(), "user"));
    EXPECT_EQ(retried.id, 3);
    EXPECT_FALSE(retried.passwordError);
    EXPECT_TRUE(service->IsProtected(retried.id));
}

TEST_F(DocumentLifecycle, IdsNotOpenAreRejectedOrGetAnEmptyDocument) {
    const int64_t doc = OpenNumbered(3);
    EXPECT_EQ(service->GetDocumentPath(doc), Orvane::ioPath(temp.File("numbered3.pdf")));
    EXPECT_FALSE(service->IsPrintProtected(doc));
    Await(WithDocument(doc, [](std::shared_ptr<IDocument>& d) {
        ASSERT_TRUE(d);
        EXPECT_EQ(d->GetPageCount(), 3u);
    }));
    Await(service->CloseDoument(doc));
    for (int64_t unknown : {int64_t{-1}, int64_t{42}, doc}) {
        EXPECT_THROW(service->GetPageCount(unknown), std::invalid_argument);
        EXPECT_THROW(service->GetDocumentPath(unknown), std::invalid_argument);
        EXPECT_THROW(service->IsEditPagesProtected(unknown), std::invalid_argument);
        EXPECT_THROW(service->SetCallbackOnFormChange(unknown, [] {}), std::invalid_argument);
    }
    bool empty = false;
    Await(WithDocument(doc, [&](std::shared_ptr<IDocument>& d) { empty = !d; }));
    EXPECT_TRUE(empty);
}

TEST_F(DocumentLifecycle, SaveAndSaveAsWriteFilesAndKeepTheId) {
    LogCapture log;
    const int64_t created = Await(service->CreateDocument()).id;
    EXPECT_FALSE(Await(service->SaveDocument(created)));
    EXPECT_EQ(log.Count(google::GLOG_ERROR, "Failed to save a document with empty path"), 1);

    Await(service->AddBlankPage(created, 0, 300, 400));
    const auto copy = temp.File("copy.pdf");
    EXPECT_TRUE(Await(service->SaveDocumentAs(created, copy.string())));
    EXPECT_EQ(service->GetDocumentPath(created), Orvane::ioPath(copy));
    EXPECT_EQ(log.Count(google::GLOG_INFO, "Save document: "), 1);  // the path before the save: none

    // Now a plain save writes the new path, and the file holds the new page too.
    Await(service->AddBlankPage(created, 1, 200, 200));
    EXPECT_TRUE(Await(service->SaveDocument(created)));
    EXPECT_EQ(log.Count(google::GLOG_INFO, "Save document: " + copy.string()), 1);
    const int64_t reopened = Open(copy);
    EXPECT_EQ(service->GetPageCount(reopened), 2);
    EXPECT_DOUBLE_EQ(Await(service->GetPageInfo(reopened, 1)).size.width, 200);

    EXPECT_FALSE(Await(service->SaveDocument(77)));
    EXPECT_FALSE(Await(service->SaveDocumentAs(77, temp.File("x.pdf").string())));
    EXPECT_EQ(
        log.Count(google::GLOG_ERROR, "Orvane::PDF::Quirelle::Impl::SaveDocument: Cannot find document with id: 77"),
        2);
    EXPECT_FALSE(std::filesystem::exists(temp.File("x.pdf")));
    // An engine failure reaches the future and the document keeps its path.
    EXPECT_ANY_THROW(Await(service->SaveDocumentAs(reopened, temp.File("no/such/dir/out.pdf").string())));
    EXPECT_EQ(service->GetDocumentPath(reopened), Orvane::ioPath(copy));
}

TEST_F(DocumentLifecycle, CloseRunsLastInItsPassAndDiscardsWhatIsStillQueued) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = Open(NumberedPdf(3, "victim.pdf"));
    const int64_t other = Open(NumberedPdf(3, "other.pdf"));
    RecordingObserver observer;
    service->RegisterEventHandler(&observer);
    TileRecorder recorder;
    service->RegisterTileObserver(&recorder);
    PassClock clock(*service, clockDoc);
    clock.OccupyCloseStep();
    // The first of each kind runs in pass 1, before that pass's close step;
    // the second of a kind waits for pass 2 and is purged by the close.
    const Rect region{0, 792, 100, 692};
    for (unsigned page : {1u, 2u}) {
        service->GeneratePageImageAsync(doc, page, 10, 10, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, page, IPageInfoObserver::DefaultView);
        service->GenerateTileAsync(doc, page, region, 1, IPageInfoObserver::DefaultView);
    }
    auto firstTile = service->GenerateTile(doc, 0, region, 1, IPageInfoObserver::DefaultView);
    auto secondTile = service->GenerateTile(doc, 1, region, 1, IPageInfoObserver::DefaultView);
    auto firstLabels = service->GetPageLabels(doc);
    auto secondLabels = service->GetPageLabels(doc);
    auto firstSelection = service->SelectAll(doc, 0);
    auto secondSelection = service->SelectAll(doc, 1);
    auto info = service->GetPageInfo(doc, 0);
    auto image = service->GeneratePageImage(doc, 0, 10, 10);
    auto save = service->SaveDocument(doc);
    bool workSawDocument = false;
    auto work = WithDocument(doc, [&](std::shared_ptr<IDocument>& d) { workSawDocument = d != nullptr; });
    auto secondInfo = service->GetPageInfo(doc, 1);
    auto import = service->ImportAllPages(other, doc, 0);
    auto importIntoClosed = service->ImportAllPages(other, doc, 0);
    auto importFromClosed = service->ImportAllPages(doc, other, 0);
    auto otherWork = service->DeletePages(other, {0});  // another document: kept
    auto close = service->CloseDoument(doc);
    auto closeAgain = service->CloseDoument(doc);
    auto closeUnknown = service->CloseDoument(1234);
    clock.Release();
    Await(std::move(close));
    clock.WaitForPass(3);  // later passes would answer what the close kept

    EXPECT_EQ(observer.images.All().size(), 1u);
    EXPECT_EQ(observer.infos.All().size(), 1u);
    EXPECT_EQ(recorder.tiles.All().size(), 1u);
    service->UnregisterEventHandler(&observer);
    service->UnregisterTileObserver(&recorder);
    EXPECT_FALSE(Await(std::move(firstTile)).isNull());
    EXPECT_EQ(Await(std::move(firstLabels)).size(), 3u);
    EXPECT_EQ(Await(std::move(firstSelection)).text, "Page 1");
    ExpectBroken(secondTile);
    ExpectBroken(secondLabels);
    ExpectBroken(secondSelection);
    EXPECT_DOUBLE_EQ(Await(std::move(info)).size.width, 612);
    EXPECT_FALSE(Await(std::move(image)).isNull());
    EXPECT_TRUE(Await(std::move(save)));
    EXPECT_NO_THROW(Await(std::move(work)));
    EXPECT_TRUE(workSawDocument);
    EXPECT_NO_THROW(Await(std::move(import)));
    ExpectBroken(secondInfo);
    ExpectBroken(importIntoClosed);
    ExpectBroken(importFromClosed);
    EXPECT_NO_THROW(Await(std::move(otherWork)));
    EXPECT_NO_THROW(Await(std::move(closeAgain)));
    EXPECT_NO_THROW(Await(std::move(closeUnknown)));
    EXPECT_EQ(service->GetPageCount(other), 3 - 1);
}

TEST_F(DocumentLifecycle, DestroyingTheServiceBreaksQueuedPromisesAndReleasesDocuments) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(3);
    std::weak_ptr<IDocument> engineDocument;
    Await(WithDocument(doc, [&](std::shared_ptr<IDocument>& d) { engineDocument = d; }));

    // One large picture a pass: far more passes than the destructor waits for.
    std::vector<std::future<QImage>> pictures;
    {
        PassClock clock(*service, clockDoc);
        for (int i = 0; i < 60; ++i) pictures.push_back(service->GeneratePageImage(doc, 0, 1500, 2000));
        std::thread destroyer([this] { service.reset(); });
        clock.Release();
        destroyer.join();
        clock.Detach();  // its search went with the service
    }
    EXPECT_TRUE(engineDocument.expired());
    int broken = 0;
    for (auto& picture : pictures) {
        ASSERT_TRUE(IsReady(picture)) << "a future was left pending";
        try {
            EXPECT_FALSE(picture.get().isNull());
        } catch (const std::future_error& e) {
            EXPECT_EQ(e.code(), std::future_errc::broken_promise);
            ++broken;
        }
    }
    EXPECT_GT(broken, 0);
}

TEST_F(DocumentLifecycle, SeveralCallerThreadsAndASecondServiceAtOnce) {
    const auto pdf = NumberedPdf(3);
    Quirelle second(std::make_shared<SystemFontProviderFactory>());
    EXPECT_EQ(Await(second.OpenDocument(pdf.string(), "")).id, 0);  // each service counts its own ids
    std::vector<std::thread> callers;
    std::vector<int64_t> ids(4, -1);
    std::atomic<int> rendered{0};
    for (size_t t = 0; t < ids.size(); ++t) {
        callers.emplace_back([&, t] {
            ids[t] = service->OpenDocument(pdf.string(), "").get().id;
            for (unsigned page = 0; page < 3; ++page) {
                rendered += !service->GeneratePageImage(ids[t], page, 60, 80).get().isNull();
                EXPECT_EQ(service->GetPageCount(ids[t]), 3);
            }
            service->CloseDoument(ids[t]).get();
        });
    }
    for (auto& caller : callers) caller.join();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<int64_t>{0, 1, 2, 3}));
    EXPECT_EQ(rendered.load(), 4 * 3);
    EXPECT_EQ(Await(service->GeneratePageImage(Open(pdf), 1, 100, 100)),
              Await(second.GeneratePageImage(0, 1, 100, 100)));
}

}  // namespace
}  // namespace QuirelleTest
