// The desktop viewer's window on a real service, under a virtual X server:
// what it draws (grabbed pixels), which pages it asks for while scrolling,
// the find bar's highlight and a thumbnail drag saved to a file. Each test
// leaves a screenshot in the build's artifacts/viewer.

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QMouseEvent>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>
#include <atomic>
#include <future>
#include <set>

#include "FindBar.h"
#include "ViewerWindow.h"
#include "tests/support/PdfBuilder.h"

namespace {

using namespace Orvane::PDF;
using QuirelleTest::PdfBuilder;
constexpr int kTimeout = 60'000;

// The real service, noting the default view's image requests and withdrawals.
class RecordingQuirelle : public Quirelle {
public:
    RecordingQuirelle() : Quirelle(nullptr) {}
    void GeneratePageImageAsync(const int64& id, unsigned page, int width, int height,
                                IPageInfoObserver::ViewType viewType) override {
        if (viewType == IPageInfoObserver::DefaultView) requested.insert(page);
        Quirelle::GeneratePageImageAsync(id, page, width, height, viewType);
    }
    void CancelAsyncTasks(const int64& id, unsigned page, IPageInfoObserver::ViewType viewType) override {
        if (viewType == IPageInfoObserver::DefaultView) cancelled.insert(page);
        Quirelle::CancelAsyncTasks(id, page, viewType);
    }
    std::set<unsigned> requested, cancelled;  // GUI thread only
};

// Counts answers on the worker; remembers the default view's answered pages.
struct Answers : IPageInfoObserver {
    void OnPageInfo(int64_t, unsigned, const Size&, const IPage::Rotation&, const Rect&) override { ++infos; }
    void OnPageImage(int64_t, unsigned page, ViewType viewType, const QImage&) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (viewType == DefaultView) images.insert(page);
    }
    std::atomic<int> infos{0};
    std::mutex mutex;
    std::set<unsigned> images;
};

QColor Pixel(QWidget& widget, const QPointF& point) {
    return widget.grab().toImage().pixelColor(point.toPoint());
}

bool Near(const QColor& seen, QRgb expected, int tolerance = 10) {
    return std::abs(seen.red() - qRed(expected)) <= tolerance &&
           std::abs(seen.green() - qGreen(expected)) <= tolerance &&
           std::abs(seen.blue() - qBlue(expected)) <= tolerance;
}

class ViewerTest : public ::testing::Test {
protected:
    void SetUp() override {
        service.RegisterEventHandler(&answers);
        window.resize(1000, 760);
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
        QApplication::setActiveWindow(&window);  // no window manager gives it the keyboard
    }
    void TearDown() override {
        const QString dir = QStringLiteral(QUIRELLE_ARTIFACTS_DIR);
        QDir().mkpath(dir);
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        window.grab().save(dir + "/" + test->name() + ".png");
        service.UnregisterEventHandler(&answers);
    }
    void Open(const std::filesystem::path& path) {
        QSignalSpy opened(&window, &ViewerWindow::Opened);
        window.OpenFile(QString::fromStdString(path.string()));
        ASSERT_TRUE(opened.wait(kTimeout));
        ASSERT_TRUE(opened.first().first().toBool());
    }
    // Waits until the page's picture has the size the view now shows it at.
    bool WaitForPage(int page) {
        return QTest::qWaitFor(
            [&] {
                QuirelleView& view = window.View();
                return view.PageImage(page).size() == view.PageRect(page).size() * view.devicePixelRatioF();
            },
            kTimeout);
    }
    QPointF InWindow(const QPointF& viewportPoint) {
        return window.View().viewport()->mapTo(&window, viewportPoint.toPoint());
    }

    QuirelleTest::TempDir temp;
    RecordingQuirelle service;
    Answers answers;
    ViewerWindow window{service};
};

TEST_F(ViewerTest, DrawsTheFirstPageFollowsALinkAndHighlightsAMatch) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(WaitForPage(0));
    QuirelleView& view = window.View();
    // The sample's swatches (page space) in their colours, the margin white,
    // the window around the page the view's grey.
    const QPointF red = InWindow(view.MapFromPage(0, {122, 530}));
    const QPointF blue = InWindow(view.MapFromPage(0, {362, 530}));
    const QPointF margin = InWindow(view.MapFromPage(0, {560, 760}));
    EXPECT_TRUE(Near(Pixel(window, red), 0xE53935)) << Pixel(window, red).name().toStdString();
    EXPECT_TRUE(Near(Pixel(window, blue), 0x1E88E5)) << Pixel(window, blue).name().toStdString();
    EXPECT_TRUE(Near(Pixel(window, margin), 0xFFFFFF));
    EXPECT_EQ(view.CurrentPage(), 0);

    // "Go to page 2" is a link: a click there shows page 2.
    QTest::mouseClick(view.viewport(), Qt::LeftButton, Qt::NoModifier, view.MapFromPage(0, {100, 644}).toPoint());
    EXPECT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 1; }, kTimeout));

    // "rotated" is only on the third page, which is turned by 90 degrees.
    QTest::keyClick(&window, Qt::Key_F, Qt::ControlModifier);
    ASSERT_TRUE(window.Find().isVisible());
    QTest::keyClicks(window.Find().Field(), "rotated");
    QSignalSpy finished(&window.Find(), &FindBar::SearchFinished);
    QTest::keyClick(window.Find().Field(), Qt::Key_Return);
    ASSERT_TRUE(finished.wait(kTimeout));
    EXPECT_EQ(finished.first().first().toInt(), 1);
    EXPECT_EQ(view.CurrentPage(), 2);
    ASSERT_TRUE(WaitForPage(2));
    const auto text = service.GetPageTextObject(window.Document(), 2).get();
    const Rect hit = text->FindText(L"rotated", 0).at(0).bounds;
    // Inside the match: white paper under the match's yellow and the current match's orange.
    const QImage shot = window.grab().toImage();
    const QRectF box = QRectF(InWindow(view.MapFromPage(2, {hit.left, hit.top})),
                              InWindow(view.MapFromPage(2, {hit.right, hit.bottom})))
                           .normalized();
    int orange = 0;
    for (int y = int(box.top()) + 1; y < box.bottom() - 1; ++y)
        for (int x = int(box.left()) + 1; x < box.right() - 1; ++x) orange += Near(shot.pixelColor(x, y), 0xFFA83C, 12);
    EXPECT_GT(orange, box.width() * box.height() / 4) << "box " << box.width() << "x" << box.height();
}

TEST_F(ViewerTest, ScrollingToTheEndAsksOnlyForPagesInViewAndWithdrawsTheRest) {
    const auto path = temp.File("long.pdf");
    PdfBuilder().AddNumberedPages(40).Save(path);
    Open(path);
    // Sizes known for all pages (the view and the strip ask 40 each), the first page drawn.
    ASSERT_TRUE(QTest::qWaitFor([&] { return answers.infos >= 80; }, kTimeout));
    ASSERT_TRUE(WaitForPage(0));
    QTest::qWait(20);

    // Hold the worker, so that what is asked for stays pending.
    std::promise<void> entered, release;
    std::packaged_task<void(std::shared_ptr<IDocument>&)> gate([&](std::shared_ptr<IDocument>&) {
        entered.set_value();
        release.get_future().wait_for(std::chrono::seconds(60));
    });
    service.ExecuteWithDocument(window.Document(), std::move(gate));
    entered.get_future().wait();
    service.requested.clear();
    service.cancelled.clear();

    QuirelleView& view = window.View();
    QScrollBar* bar = view.verticalScrollBar();
    auto inReach = [&] {  // visible pages and one screen ahead
        std::set<unsigned> pages;
        for (int page = 0; page < view.PageCount(); ++page) {
            const QRect where = view.PageRect(page);
            if (where.bottom() >= 0 && where.top() < 2 * view.viewport()->height()) pages.insert(page);
        }
        return pages;
    };
    bar->setValue(bar->maximum() / 3);
    QCoreApplication::processEvents();
    const std::set<unsigned> passed = inReach();
    bar->setValue(bar->maximum());
    QCoreApplication::processEvents();
    const std::set<unsigned> end = inReach();
    const std::set<unsigned> asked = service.requested, withdrawn = service.cancelled;
    release.set_value();
    ASSERT_TRUE(WaitForPage(39));

    std::set<unsigned> expected = passed;
    expected.insert(end.begin(), end.end());
    EXPECT_EQ(asked, expected);
    EXPECT_EQ(withdrawn, passed);
    EXPECT_TRUE(end.count(39));
    std::lock_guard<std::mutex> lock(answers.mutex);
    for (unsigned page : passed) EXPECT_EQ(answers.images.count(page), 0u) << "withdrawn page " << page << " drawn";
}

TEST_F(ViewerTest, DraggingAThumbnailMovesThePageAndSaveKeepsTheOrder) {
    const auto path = temp.File("four.pdf");
    PdfBuilder().AddNumberedPages(4).Save(path);
    Open(path);
    ThumbnailStrip& strip = window.Thumbnails();
    ASSERT_TRUE(QTest::qWaitFor([&] { return strip.HasThumbnail(3); }, kTimeout));

    // Page 1 dragged to the lower half of page 3: it lands before page 4.
    QWidget* area = strip.viewport();
    const QPoint from = strip.visualItemRect(strip.item(0)).center();
    const QRect target = strip.visualItemRect(strip.item(2));
    const QPoint to(target.center().x(), target.bottom() - 4);
    QSignalSpy edited(&window, &ViewerWindow::Edited);
    QTest::mousePress(area, Qt::LeftButton, Qt::NoModifier, from);
    for (const QPoint& point : {from + QPoint(0, 20), to}) {
        QMouseEvent move(QEvent::MouseMove, point, Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(area, &move);
    }
    QTest::mouseRelease(area, Qt::LeftButton, Qt::NoModifier, to);
    ASSERT_TRUE(edited.wait(kTimeout));

    QSignalSpy saved(&window, &ViewerWindow::Saved);
    const auto out = temp.File("moved.pdf");
    window.SaveAs(QString::fromStdString(out.string()));
    ASSERT_TRUE(saved.wait(kTimeout));
    ASSERT_TRUE(saved.first().first().toBool());
    ASSERT_TRUE(QTest::qWaitFor([&] { return strip.HasThumbnail(3); }, kTimeout));

    Quirelle reader(nullptr);
    const int64_t id = reader.OpenDocument(out.string(), "").get().id;
    ASSERT_GE(id, 0);
    std::vector<std::wstring> order;
    for (unsigned page = 0; page < 4; ++page) order.push_back(reader.GetPageTextObject(id, page).get()->GetText());
    const std::vector<std::wstring> expected{L"Page 2\n", L"Page 3\n", L"Page 1\n", L"Page 4\n"};
    EXPECT_EQ(order, expected);
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
