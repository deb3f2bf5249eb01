// Opening, creating, saving and closing through the service: ids, the three
// failure families, paths, purging on close, shutdown, many callers.

#include <atomic>
#include <fstream>
#include <thread>

#include <glog/logging.h>

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
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({severity, fullFilename, std::string(message, length)});
    }
    struct Line {
        google::LogSeverity severity;
        std::string file;
        std::string text;
    };
    int CountStartingWith(google::LogSeverity severity, const std::string& prefix) {
        std::lock_guard<std::mutex> lock(mutex_);
        int count = 0;
        for (const Line& line : lines_) count += line.severity == severity && line.text.rfind(prefix, 0) == 0;
        return count;
    }
    bool Has(google::LogSeverity severity, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const Line& line : lines_) {
            if (line.severity == severity && line.text == text && line.file == "library/quirelle/Quirelle") return true;
        }
        return false;
    }

private:
    std::mutex mutex_;
    std::vector<Line> lines_;
};

using DocumentLifecycle = ServiceTest;

TEST_F(DocumentLifecycle, IdsCountFromZeroAndAreNeverReused) {
    const auto pdf = NumberedPdf(2);
    EXPECT_EQ(Await(service->CreateDocument()).id, 0);
    EXPECT_EQ(Open(pdf), 1);
    Await(service->CloseDoument(0));
    EXPECT_EQ(Open(pdf), 2);
    // A failed open consumes no id.
    EXPECT_EQ(Await(service->OpenDocument(temp.File("missing.pdf").string(), "")).id, -1);
    EXPECT_EQ(Await(service->CreateDocument()).id, 3);
}

TEST_F(DocumentLifecycle, OpenFailuresAnswerMinusOneWithThePasswordFlagOnlyForPasswords) {
    const auto locked = temp.File("locked.pdf");
    PdfBuilder().AddNumberedPages(1).Encrypt({"user", "owner", -4}).Save(locked);
    const auto notPdf = temp.File("notes.pdf");
    WriteFile(notPdf, "just some text, no PDF here\n");
    const auto fakeJpeg = temp.File("photo.jpg");
    WriteFile(fakeJpeg, "not a picture");

    auto noPassword = Await(service->OpenDocument(locked.string(), ""));
    EXPECT_EQ(noPassword.id, -1);
    EXPECT_TRUE(noPassword.passwordError);
    auto wrong = Await(service->OpenDocument(locked.string(), "guess"));
    EXPECT_EQ(wrong.id, -1);
    EXPECT_TRUE(wrong.passwordError);
    for (const auto& path : {notPdf, fakeJpeg, temp.File("missing.pdf")}) {
        auto failed = Await(service->OpenDocument(path.string(), ""));
        EXPECT_EQ(failed.id, -1) << path;
        EXPECT_FALSE(failed.passwordError) << path;
    }
    // The retry with the right password gets the first id: the failures took none.
    auto retried = Await(service->OpenDocument(locked.string(), "user"));
    EXPECT_EQ(retried.id, 0);
    EXPECT_FALSE(retried.passwordError);
    EXPECT_EQ(service->GetPageCount(retried.id), 1);
    EXPECT_TRUE(service->IsProtected(retried.id));
}

TEST_F(DocumentLifecycle, ImmediateQueriesRejectIdsThatAreNotOpen) {
    const int64_t doc = OpenNumbered(3);
    EXPECT_EQ(service->GetPageCount(doc), 3);
    EXPECT_EQ(service->GetDocumentPath(doc), Orvane::ioPath(temp.File("numbered3.pdf")));
    EXPECT_FALSE(service->IsProtected(doc));
    EXPECT_FALSE(service->IsPrintProtected(doc));
    for (int64_t unknown : {int64_t{-1}, int64_t{42}}) {
        EXPECT_THROW(service->GetPageCount(unknown), std::invalid_argument);
        EXPECT_THROW(service->GetDocumentPath(unknown), std::invalid_argument);
        EXPECT_THROW(service->IsEditPagesProtected(unknown), std::invalid_argument);
        EXPECT_THROW(service->SetCallbackOnFormChange(unknown, [] {}), std::invalid_argument);
    }
    Await(service->CloseDoument(doc));
    EXPECT_THROW(service->GetPageCount(doc), std::invalid_argument);
}

TEST_F(DocumentLifecycle, SaveAndSaveAsWriteFilesAndKeepTheId) {
    LogCapture log;
    const int64_t created = Await(service->CreateDocument()).id;
    EXPECT_TRUE(service->GetDocumentPath(created).empty());
    EXPECT_FALSE(Await(service->SaveDocument(created)));
    EXPECT_TRUE(log.Has(google::GLOG_ERROR, "Failed to save a document with empty path"));

    Await(service->AddBlankPage(created, 0, 300, 400));
    const auto copy = temp.File("copy.pdf");
    EXPECT_TRUE(Await(service->SaveDocumentAs(created, copy.string())));
    EXPECT_EQ(service->GetDocumentPath(created), Orvane::ioPath(copy));
    EXPECT_TRUE(log.Has(google::GLOG_INFO, "Save document: "));  // the path before the save: none

    // Now a plain save writes the new path, and the file holds the new page too.
    Await(service->AddBlankPage(created, 1, 200, 200));
    EXPECT_TRUE(Await(service->SaveDocument(created)));
    EXPECT_TRUE(log.Has(google::GLOG_INFO, "Save document: " + copy.string()));
    const int64_t reopened = Open(copy);
    EXPECT_EQ(service->GetPageCount(reopened), 2);
    const auto size = Await(service->GetPageInfo(reopened, 1)).size;
    EXPECT_DOUBLE_EQ(size.width, 200);

    for (int64_t unknown : {int64_t{77}}) {
        EXPECT_FALSE(Await(service->SaveDocument(unknown)));
        EXPECT_FALSE(Await(service->SaveDocumentAs(unknown, temp.File("x.pdf").string())));
        EXPECT_TRUE(log.Has(google::GLOG_ERROR,
                            "Orvane::PDF::Quirelle::Impl::SaveDocument: Cannot find document with id: 77"));
    }
    EXPECT_FALSE(std::filesystem::exists(temp.File("x.pdf")));
}

TEST_F(DocumentLifecycle, AFailedSaveReachesTheFutureAndKeepsThePath) {
    const int64_t doc = OpenNumbered(2);
    const auto original = service->GetDocumentPath(doc);
    auto failed = service->SaveDocumentAs(doc, temp.File("no/such/dir/out.pdf").string());
    EXPECT_ANY_THROW(Await(std::move(failed)));
    EXPECT_EQ(service->GetDocumentPath(doc), original);
}

TEST_F(DocumentLifecycle, OpenDocumentLogsFileFailuresOnlyWhenVerbose) {
    LogCapture log;
    const std::string prefix = "Orvane::PDF::Quirelle::Impl::OpenDocument: Cannot create new document. Error: ";
    const auto fakeImage = temp.File("scan.TIFF");
    WriteFile(fakeImage, "not a picture");
    const int saved = FLAGS_v;
    FLAGS_v = 0;
    Await(service->OpenDocument(fakeImage.string(), ""));
    EXPECT_EQ(log.CountStartingWith(google::GLOG_INFO, prefix), 0);
    FLAGS_v = 10;
    Await(service->OpenDocument(fakeImage.string(), ""));
    FLAGS_v = saved;
    EXPECT_TRUE(log.Has(google::GLOG_INFO, prefix + "Invalid image format for file: " + fakeImage.string()));
}

TEST_F(DocumentLifecycle, CloseRunsLastInItsPassAndDiscardsWhatIsStillQueued) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = Open(NumberedPdf(3, "victim.pdf"));
    const int64_t other = Open(NumberedPdf(3, "other.pdf"));
    auto expectBroken = [](auto& future) {
        try {
            future.get();
            ADD_FAILURE() << "purged work ran";
        } catch (const std::future_error& e) {
            EXPECT_EQ(e.code(), std::future_errc::broken_promise);
        }
    };
    PassClock clock(*service, clockDoc);
    clock.OccupyCloseStep();
    // The first of each kind runs in pass 1, before that pass's close step;
    // the second of a kind waits for pass 2 and is purged by the close.
    auto info = service->GetPageInfo(doc, 0);
    auto image = service->GeneratePageImage(doc, 0, 10, 10);
    auto rotate = service->RotatePage(doc, 0, IPDFProvider::RotateClockwise);
    auto save = service->SaveDocument(doc);
    auto import = service->ImportAllPages(other, doc, 0);
    std::promise<bool> callerRan;
    std::packaged_task<void(std::shared_ptr<IDocument>&)> work(
        [&](std::shared_ptr<IDocument>& d) { callerRan.set_value(d != nullptr); });
    auto workDone = work.get_future();
    service->ExecuteWithDocument(doc, std::move(work));
    auto secondInfo = service->GetPageInfo(doc, 1);
    auto importIntoClosed = service->ImportAllPages(other, doc, 0);
    auto importFromClosed = service->ImportAllPages(doc, other, 0);
    auto otherWork = service->DeletePages(other, {0});  // another document: kept
    auto close = service->CloseDoument(doc);
    auto closeAgain = service->CloseDoument(doc);
    auto closeUnknown = service->CloseDoument(1234);
    clock.Release();
    Await(std::move(close));

    EXPECT_DOUBLE_EQ(Await(std::move(info)).size.width, 612);
    EXPECT_FALSE(Await(std::move(image)).isNull());
    EXPECT_NO_THROW(Await(std::move(rotate)));
    EXPECT_TRUE(Await(std::move(save)));
    EXPECT_NO_THROW(Await(std::move(import)));
    EXPECT_TRUE(Await(callerRan.get_future()));
    EXPECT_NO_THROW(Await(std::move(workDone)));
    expectBroken(secondInfo);
    expectBroken(importIntoClosed);
    expectBroken(importFromClosed);
    EXPECT_NO_THROW(Await(std::move(otherWork)));
    EXPECT_NO_THROW(Await(std::move(closeAgain)));
    EXPECT_NO_THROW(Await(std::move(closeUnknown)));
    EXPECT_EQ(service->GetPageCount(other), 3 - 1);
}

TEST_F(DocumentLifecycle, ExecuteWithDocumentGivesTheDocumentOrAnEmptyPointer) {
    const int64_t doc = OpenNumbered(4);
    std::packaged_task<void(std::shared_ptr<IDocument>&)> count(
        [](std::shared_ptr<IDocument>& d) { ASSERT_TRUE(d); EXPECT_EQ(d->GetPageCount(), 4u); });
    auto counted = count.get_future();
    service->ExecuteWithDocument(doc, std::move(count));
    Await(std::move(counted));

    Await(service->CloseDoument(doc));
    std::packaged_task<void(std::shared_ptr<IDocument>&)> closed([](std::shared_ptr<IDocument>& d) {
        if (!d) throw std::runtime_error("no document");
    });
    auto failed = closed.get_future();
    service->ExecuteWithDocument(doc, std::move(closed));
    EXPECT_THROW(Await(std::move(failed)), std::runtime_error);
}

TEST_F(DocumentLifecycle, DestroyingTheServiceBreaksQueuedPromisesAndReleasesDocuments) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(3);
    std::weak_ptr<IDocument> engineDocument;
    std::packaged_task<void(std::shared_ptr<IDocument>&)> grab(
        [&](std::shared_ptr<IDocument>& d) { engineDocument = d; });
    auto grabbed = grab.get_future();
    service->ExecuteWithDocument(doc, std::move(grab));
    Await(std::move(grabbed));

    // One large picture a pass: far more passes than the destructor waits for.
    std::vector<std::future<QImage>> pictures;
    std::thread destroyer;
    {
        PassClock clock(*service, clockDoc);
        for (int i = 0; i < 60; ++i) pictures.push_back(service->GeneratePageImage(doc, 0, 1500, 2000));
        destroyer = std::thread([this] { service.reset(); });
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

TEST_F(DocumentLifecycle, SeveralCallerThreadsAtOnce) {
    const auto pdf = NumberedPdf(3);
    constexpr int kThreads = 4;
    std::vector<std::thread> callers;
    std::vector<int64_t> ids(kThreads, -1);
    std::atomic<int> rendered{0};
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&, t] {
            const int64_t id = service->OpenDocument(pdf.string(), "").get().id;
            ids[t] = id;
            for (unsigned page = 0; page < 3; ++page) {
                if (!service->GeneratePageImage(id, page, 60, 80).get().isNull()) ++rendered;
                EXPECT_EQ(service->GetPageCount(id), 3);
            }
            service->CloseDoument(id).get();
        });
    }
    for (auto& caller : callers) caller.join();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<int64_t>{0, 1, 2, 3}));
    EXPECT_EQ(rendered.load(), kThreads * 3);
}

TEST_F(DocumentLifecycle, TwoServicesWorkSideBySide) {
    const auto pdf = NumberedPdf(2);
    Quirelle second(std::make_shared<SystemFontProviderFactory>());
    const int64_t a = Open(pdf);
    const int64_t b = Await(second.OpenDocument(pdf.string(), "")).id;
    EXPECT_EQ(a, 0);
    EXPECT_EQ(b, 0);
    auto imageA = service->GeneratePageImage(a, 1, 100, 100);
    auto imageB = second.GeneratePageImage(b, 1, 100, 100);
    EXPECT_EQ(Await(std::move(imageA)), Await(std::move(imageB)));
}

}  // namespace
}  // namespace QuirelleTest
