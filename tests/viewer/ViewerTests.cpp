// The desktop viewer's window on a real service, under a virtual X server:
// what it draws (grabbed pixels), which pages it asks for while scrolling,
// the find bar's highlight, page edits with undo and the unsaved-changes
// prompt, where page commands act, navigation, zoom, printing to a PDF file,
// full screen, presentation, dark pages, remembered places and the command
// line. Settings live in a temporary directory; prompts are answered by the
// tests. Each test leaves a screenshot in the build's artifacts/viewer.

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QDialog>
#include <QLabel>
#include <QStatusBar>
#include <QTabWidget>
#include <QTreeWidget>
#include <QDir>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPrinter>
#include <QProcess>
#include <QScrollBar>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <atomic>
#include <future>
#include <set>

#include "FindBar.h"
#include "PresentationWindow.h"
#include "ViewerWindow.h"
#include "tests/viewer/WindowTest.h"
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
    std::future<QImage> GeneratePageImage(const int64& id, unsigned page, int width, int height,
                                          IPageInfoObserver::ViewType viewType) override {
        if (viewType == IPageInfoObserver::PrintView) printed.emplace_back(width, height);
        return Quirelle::GeneratePageImage(id, page, width, height, viewType);
    }
    std::set<unsigned> requested, cancelled;   // GUI thread only
    std::vector<std::pair<int, int>> printed;  // picture sizes asked with the printing view
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
        QuirelleTest::ShowWindow(window);
    }
    void TearDown() override {
        service.UnregisterEventHandler(&answers);
        QuirelleTest::LeaveWindow(window);
    }
    // Runs a page command and waits until its edit is done.
    void Edit(const std::function<void()>& command) {
        QSignalSpy edited(&window, &ViewerWindow::Edited);
        command();
        ASSERT_TRUE(edited.wait(kTimeout));
    }
    // Each page's text and rotation, as the service has them now, or as a
    // saved file holds them.
    static std::vector<std::pair<std::wstring, int>> PagesOf(IPDFProvider& provider, int64_t id) {
        std::vector<std::pair<std::wstring, int>> pages;
        for (int page = 0; page < provider.GetPageCount(id); ++page) {
            auto text = provider.GetPageTextObject(id, static_cast<unsigned>(page)).get();
            pages.emplace_back(text ? text->GetText() : L"",
                               provider.GetPageInfo(id, static_cast<unsigned>(page)).get().rotation);
        }
        return pages;
    }
    std::vector<std::pair<std::wstring, int>> Pages() { return PagesOf(service, window.Document()); }
    static std::vector<std::pair<std::wstring, int>> Saved(const std::filesystem::path& path) {
        Quirelle reader(nullptr);
        return PagesOf(reader, reader.OpenDocument(path.string(), "").get().id);
    }
    static std::vector<std::wstring> TextsOf(const std::vector<std::pair<std::wstring, int>>& pages) {
        std::vector<std::wstring> texts;
        for (const auto& page : pages) texts.push_back(page.first);
        return texts;
    }
    std::vector<std::wstring> Texts() { return TextsOf(Pages()); }
    static std::vector<std::wstring> Numbered(std::initializer_list<int> numbers) {
        std::vector<std::wstring> texts;
        for (int n : numbers) texts.push_back(L"Page " + std::to_wstring(n) + L"\n");
        return texts;
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

TEST_F(ViewerTest, DrawsTheFirstPageAndHighlightsAMatch) {
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

    EXPECT_EQ(TextsOf(Saved(out)), Numbered({2, 3, 1, 4}));
}

// Every page edit undone and redone; unsaved edits survive quit and open
// unless the user says otherwise, and are saved when asked.
TEST_F(ViewerTest, UndoesEveryPageEditAndAsksBeforeLosingIt) {
    const auto path = temp.File("four.pdf"), extra = temp.File("two.pdf");
    PdfBuilder().AddNumberedPages(4).Save(path);
    PdfBuilder().AddNumberedPages(2).Save(extra);
    Open(path);
    QStringList asked;
    ViewerWindow::Unsaved answer = ViewerWindow::Unsaved::Cancel;
    window.unsavedPrompt = [&](const QString& file) {
        asked << file;
        return answer;
    };
    window.confirmPrompt = [](const QString& question) -> bool {
        ADD_FAILURE() << "asked " << question.toStdString() << " though undo can bring the pages back";
        return true;
    };
    QuirelleView& view = window.View();
    view.setFocus();
    const auto original = Texts();

    Edit([&] { QTest::keyClick(&window, Qt::Key_R, Qt::ControlModifier); });
    EXPECT_EQ(Pages().at(0).second, IPage::Rotate90);
    EXPECT_TRUE(window.Modified());
    EXPECT_TRUE(window.windowTitle().endsWith('*'));

    // Cancel keeps the window and the document; nothing was lost.
    QTest::keyClick(&window, Qt::Key_Q, Qt::ControlModifier);
    window.OpenFile(QString::fromStdString(extra.string()));
    QTest::qWait(50);
    EXPECT_EQ(asked.size(), 2);
    EXPECT_TRUE(window.isVisible());
    EXPECT_EQ(service.GetPageCount(window.Document()), 4);

    Edit([&] { QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier); });
    EXPECT_EQ(Pages().at(0).second, IPage::Rotate0);
    EXPECT_FALSE(window.Modified());
    Edit([&] { QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier); });
    EXPECT_EQ(Pages().at(0).second, IPage::Rotate90);

    // Delete (no question: undo brings it back), blank page, import and a
    // move, each undone in turn back to the rotated original.
    view.GoToPage(2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 2; }, kTimeout));
    Edit([&] { QTest::keyClick(&window, Qt::Key_Delete, Qt::ControlModifier); });
    EXPECT_EQ(Texts(), Numbered({1, 2, 4}));
    Edit([&] { window.ImportFrom(QString::fromStdString(extra.string())); });
    const int at = view.CurrentPage() + 1;
    EXPECT_EQ(service.GetPageCount(window.Document()), 5) << "import after page " << at;
    Edit([&] { QTest::keyClick(&window, Qt::Key_B, Qt::ControlModifier | Qt::ShiftModifier); });
    EXPECT_EQ(service.GetPageCount(window.Document()), 6);
    Edit([&] { window.MovePages({0}, 6); });
    EXPECT_EQ(Texts().back(), L"Page 1\n");
    const auto edited = Pages();
    for (int i = 0; i < 4; ++i) Edit([&] { window.Undo(); });
    EXPECT_EQ(Texts(), original);
    EXPECT_EQ(Pages().at(0).second, IPage::Rotate90);
    for (int i = 0; i < 4; ++i) Edit([&] { window.Redo(); });
    EXPECT_EQ(Pages(), edited);
    for (int i = 0; i < 3; ++i) Edit([&] { window.Undo(); });
    EXPECT_EQ(Texts(), Numbered({1, 2, 4}));

    // Quit, answered Save: the file holds the edits, then the window closes.
    answer = ViewerWindow::Unsaved::Save;
    QSignalSpy saved(&window, &ViewerWindow::Saved);
    QTest::keyClick(&window, Qt::Key_Q, Qt::ControlModifier);
    ASSERT_TRUE(saved.wait(kTimeout));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !window.isVisible(); }, kTimeout));
    const auto inFile = Saved(path);
    EXPECT_EQ(TextsOf(inFile), Numbered({1, 2, 4}));
    EXPECT_EQ(inFile.at(0).second, IPage::Rotate90);
}

// Page commands act on the page in view, or on the thumbnails' selection
// while the strip has the focus; moved pages stay selected or in view.
TEST_F(ViewerTest, PageCommandsActWhereTheUserLooks) {
    const auto path = temp.File("thirty.pdf");
    PdfBuilder().AddNumberedPages(30).Save(path);
    Open(path);
    ThumbnailStrip& strip = window.Thumbnails();
    QuirelleView& view = window.View();
    QTest::mouseClick(strip.viewport(), Qt::LeftButton, Qt::NoModifier, strip.visualItemRect(strip.item(1)).center());
    ASSERT_EQ(strip.SelectedPages(), QVector<int>{1});

    // Reading page 26 with page 2's thumbnail still selected.
    view.setFocus();
    view.GoToPage(25);
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 25; }, kTimeout));
    Edit([&] { QTest::keyClick(&window, Qt::Key_R, Qt::ControlModifier); });
    EXPECT_EQ(Pages().at(25).second, IPage::Rotate90);
    EXPECT_EQ(Pages().at(1).second, IPage::Rotate0);

    // Moving up twice moves twice; the view follows the page.
    for (int i = 0; i < 2; ++i)
        Edit([&] { QTest::keyClick(&window, Qt::Key_Up, Qt::ControlModifier | Qt::ShiftModifier); });
    EXPECT_EQ(Texts().at(23), L"Page 26\n");
    EXPECT_EQ(view.CurrentPage(), 23);

    // From the strip: its selection, which follows the pages moved down.
    strip.setFocus();
    strip.SelectPages({1, 2});
    for (int i = 0; i < 2; ++i)
        Edit([&] { QTest::keyClick(&window, Qt::Key_Down, Qt::ControlModifier | Qt::ShiftModifier); });
    EXPECT_EQ(strip.SelectedPages(), (QVector<int>{3, 4}));
    EXPECT_EQ(Texts().at(3), L"Page 2\n");
    EXPECT_EQ(Texts().at(4), L"Page 3\n");
    Edit([&] { QTest::keyClick(&window, Qt::Key_R, Qt::ControlModifier); });
    EXPECT_EQ(Pages().at(3).second, IPage::Rotate90);
    EXPECT_EQ(Pages().at(23).second, IPage::Rotate90);
    EXPECT_EQ(Pages().at(0).second, IPage::Rotate0);
}

// A link followed by a click, Back and Forward through link and page jumps
// (keys and mouse buttons), the page box, Escape on the find bar, and zoom
// about the pointer to 6400 %.
TEST_F(ViewerTest, FollowsLinksNavigatesBackForwardByPageBoxAndZoomsAboutThePointer) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(WaitForPage(0));
    QuirelleView& view = window.View();
    view.setFocus();
    auto at = [&](int page) { return QTest::qWaitFor([&] { return view.CurrentPage() == page; }, kTimeout); };
    QTest::mouseClick(view.viewport(), Qt::LeftButton, Qt::NoModifier, view.MapFromPage(0, {100, 644}).toPoint());
    ASSERT_TRUE(at(1));
    QTest::keyClick(&window, Qt::Key_Left, Qt::AltModifier);
    EXPECT_TRUE(at(0));
    QTest::keyClick(&window, Qt::Key_Right, Qt::AltModifier);
    EXPECT_TRUE(at(1));
    QTest::keyClick(&view, Qt::Key_Backspace);
    EXPECT_TRUE(at(0));
    QTest::mouseClick(view.viewport(), Qt::ForwardButton);
    EXPECT_TRUE(at(1));
    QTest::mouseClick(view.viewport(), Qt::BackButton);
    EXPECT_TRUE(at(0));

    window.PageBox()->setFocus();
    window.PageBox()->selectAll();
    QTest::keyClicks(window.PageBox(), "3");
    QTest::keyClick(window.PageBox(), Qt::Key_Return);
    EXPECT_TRUE(at(2));
    QTest::keyClick(&window, Qt::Key_Left, Qt::AltModifier);
    EXPECT_TRUE(at(0));
    EXPECT_EQ(window.PageBox()->text(), "1");

    QTest::keyClick(&window, Qt::Key_F, Qt::ControlModifier);
    ASSERT_TRUE(window.Find().isVisible());
    QTest::keyClick(window.Find().Field(), Qt::Key_Escape);
    EXPECT_FALSE(window.Find().isVisible());

    // Ctrl+wheel over the red swatch keeps it under the pointer.
    const QPoint pointer = view.MapFromPage(0, {122, 530}).toPoint();
    for (int i = 0; i < 3; ++i) {
        QWheelEvent wheel(pointer, view.viewport()->mapToGlobal(pointer), QPoint(), QPoint(0, 120), Qt::NoButton,
                          Qt::ControlModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(view.viewport(), &wheel);
        const QPointF now = view.MapFromPage(0, {122, 530});
        EXPECT_LE((now - QPointF(pointer)).manhattanLength(), 3.0) << "after step " << i;
    }
    for (int i = 0; i < 20; ++i) QTest::keyClick(&window, Qt::Key_Plus, Qt::ControlModifier);
    EXPECT_DOUBLE_EQ(view.Zoom(), 64.0);
    // The page asked no larger than a few megapixels and drawn scaled, tiles over it.
    const int page = view.CurrentPage();
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.PageImage(page).width() > 1000; }, kTimeout));
    EXPECT_LE(qint64(view.PageImage(page).width()) * view.PageImage(page).height(), 4'000'000);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !view.ShownTiles(page).empty(); }, kTimeout));
}

// The outline beside the thumbnails: a click goes to the entry's target, and
// the entry of the page shown is marked as the view scrolls.
TEST_F(ViewerTest, OutlineSidebarGoesToTargetsAndFollowsThePage) {
    ASSERT_NE(window.Outline(), nullptr);
    OutlineView& outline = *window.Outline();
    QSignalSpy loaded(&outline, &OutlineView::Loaded);
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(loaded.wait(kTimeout));
    ASSERT_EQ(outline.EntryCount(), 5);
    window.Sidebar().setCurrentWidget(&outline);
    QuirelleView& view = window.View();
    const struct {
        int entry;              // clicked
        int page;               // shown then
        const char* marked;     // the entry marked
    } steps[] = {{3, 1, "Page two: A4"}, {4, 2, "Chapter three"}, {0, 0, "Swatches and images"}};
    for (const auto& step : steps) {
        QTreeWidgetItem* item = outline.Entry(step.entry);
        QTest::mouseClick(outline.viewport(), Qt::LeftButton, Qt::NoModifier,
                          outline.visualItemRect(item).center());
        EXPECT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == step.page; }, kTimeout)) << step.entry;
        EXPECT_EQ(outline.CurrentTitle(), step.marked);
    }
    // Scrolling alone moves the mark.
    view.GoToPage(1);
    EXPECT_TRUE(QTest::qWaitFor([&] { return outline.CurrentTitle() == "Page two: A4"; }, kTimeout));
    EXPECT_TRUE(view.CanGoBack());
    ASSERT_TRUE(WaitForPage(1));
}

// Page labels in the status bar and the page box; the properties dialog.
TEST_F(ViewerTest, PageLabelsNameThePagesAndPropertiesShowTheInformation) {
    const auto path = temp.File("labelled.pdf");
    PdfBuilder()
        .AddNumberedPages(6)
        .AddPageLabels({{0, "r"}, {2, "D"}, {5, "D", "A-"}})
        .SetTitle("Labelled manual")
        .Save(path);
    Open(path);
    QuirelleView& view = window.View();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window.PageLabels().size() == 6; }, kTimeout));
    EXPECT_EQ(window.PageLabels(), (QStringList{"i", "ii", "1", "2", "3", "A-1"}));
    const struct {
        const char* typed;
        int page;
        const char* status;  // then shown
    } steps[] = {{"ii", 1, "Page ii (2 of 6)"}, {"A-1", 5, "Page A-1 (6 of 6)"},
                 {"3", 4, "Page 3 (5 of 6)"},   // a label before a number
                 {"6", 5, "Page A-1 (6 of 6)"}};
    for (const auto& step : steps) {
        window.PageBox()->setFocus();
        window.PageBox()->selectAll();
        QTest::keyClicks(window.PageBox(), step.typed);
        QTest::keyClick(window.PageBox(), Qt::Key_Return);
        EXPECT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == step.page; }, kTimeout)) << step.typed;
        EXPECT_TRUE(window.statusBar()->currentMessage().startsWith(step.status))
            << window.statusBar()->currentMessage().toStdString();
    }
    EXPECT_EQ(window.PageFromText("vii"), -1);

    QSignalSpy shown(&window, &ViewerWindow::PropertiesShown);
    QTest::keyClick(&window, Qt::Key_D, Qt::ControlModifier);
    ASSERT_TRUE(shown.wait(kTimeout));
    auto* dialog = window.findChild<QDialog*>("properties");
    ASSERT_NE(dialog, nullptr);
    auto field = [&](const char* name) { return dialog->findChild<QLabel*>(name)->text(); };
    EXPECT_EQ(field("title"), "Labelled manual");
    EXPECT_EQ(field("pages"), "6");
    EXPECT_EQ(field("encryption"), "none");
    dialog->close();
}

// Dragging selects in reading order and paints the selection as matches are
// painted; a double click takes a word, a triple click a line, Ctrl+A the
// page; Ctrl+C copies.
TEST_F(ViewerTest, SelectsTextWithTheMouseAndCopiesIt) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(WaitForPage(0));
    QuirelleView& view = window.View();
    view.setFocus();
    QWidget* port = view.viewport();
    QSignalSpy changed(&view, &QuirelleView::SelectionChanged);
    auto send = [&](QEvent::Type type, const QPointF& page, Qt::MouseButtons buttons) {
        const QPoint at = view.MapFromPage(0, page).toPoint();
        QMouseEvent event(type, at, port->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                          buttons, Qt::NoModifier);
        QApplication::sendEvent(port, &event);
    };
    auto settle = [&] {
        return QTest::qWaitFor([&] { return !changed.isEmpty(); }, kTimeout) &&
               (QTest::qWait(100), true);  // a drag's last query follows the first
    };
    // From the start of the first body line to the middle of the second.
    send(QEvent::MouseButtonPress, {73, 684}, Qt::LeftButton);
    send(QEvent::MouseMove, {150, 670}, Qt::LeftButton);
    send(QEvent::MouseMove, {160, 664}, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, {160, 664}, Qt::NoButton);
    ASSERT_TRUE(settle());
    ASSERT_EQ(view.SelectionPage(), 0);
    const std::string dragged = view.Selection().text;
    EXPECT_EQ(dragged.rfind("This file exercises text, shapes, images and links.\nVisit ", 0), 0u) << dragged;
    EXPECT_EQ(view.Selection().rects.size(), 2u);
    // Painted: the white under the selection tinted blue.
    const QColor tinted = Pixel(window, InWindow(view.MapFromPage(0, {120, 686})));
    EXPECT_TRUE(tinted.blue() > tinted.red() + 40) << tinted.name().toStdString();
    QTest::keyClick(&window, Qt::Key_C, Qt::ControlModifier);
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), dragged);

    const struct {
        const char* how;
        std::function<void()> act;
        std::string text;
    } choices[] = {
        {"double click",
         [&] {
             send(QEvent::MouseButtonPress, {200, 726}, Qt::LeftButton);
             send(QEvent::MouseButtonRelease, {200, 726}, Qt::NoButton);
             send(QEvent::MouseButtonDblClick, {200, 726}, Qt::LeftButton);
             send(QEvent::MouseButtonRelease, {200, 726}, Qt::NoButton);
         },
         "sample"},
        {"triple click",
         [&] {
             send(QEvent::MouseButtonPress, {200, 726}, Qt::LeftButton);
             send(QEvent::MouseButtonRelease, {200, 726}, Qt::NoButton);
         },
         "Quirelle sample"},
        {"Ctrl+A", [&] { QTest::keyClick(&window, Qt::Key_A, Qt::ControlModifier); }, ""},
    };
    for (const auto& choice : choices) {
        changed.clear();
        choice.act();
        ASSERT_TRUE(settle()) << choice.how;
        if (!choice.text.empty()) {
            EXPECT_EQ(view.Selection().text, choice.text) << choice.how;
        } else {
            EXPECT_EQ(view.Selection().text.rfind("Quirelle sample\nThis file", 0), 0u) << view.Selection().text;
            EXPECT_EQ(view.Selection().rects.size(), 5u);
        }
    }
    QTest::keyClick(&window, Qt::Key_C, Qt::ControlModifier);
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), view.Selection().text);
    // A plain click elsewhere drops it.
    send(QEvent::MouseButtonPress, {560, 100}, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, {560, 100}, Qt::NoButton);
    EXPECT_EQ(view.SelectionPage(), -1);
}

// Far in, the visible parts of the page are tiles at the zoom shown: the
// pixels on screen are those of a direct render of the same region, and the
// view's pictures stay within their budget at any zoom.
TEST_F(ViewerTest, ZoomedFarInTheViewDrawsTilesAsSharpAsADirectRender) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(WaitForPage(0));
    QuirelleView& view = window.View();
    for (double zoom : {32.0, 64.0}) {
        SCOPED_TRACE(zoom);
        view.SetZoom(zoom);
        QApplication::processEvents();
        // The right edge of the red swatch near the top-left of the view.
        const QPointF corner = view.MapFromPage(0, {172, 540});
        view.horizontalScrollBar()->setValue(view.horizontalScrollBar()->value() + int(corner.x()) - 200);
        view.verticalScrollBar()->setValue(view.verticalScrollBar()->value() + int(corner.y()) - 200);
        const QRect visible = view.viewport()->rect();
        auto covered = [&] {
            QRegion region;
            for (const auto& tile : view.ShownTiles(0)) region += tile.first;
            return view.PendingTiles() == 0 && region.contains(visible.center());
        };
        ASSERT_TRUE(QTest::qWaitFor(covered, kTimeout));
        const QImage screen = view.viewport()->grab().toImage().convertToFormat(QImage::Format_RGB32);
        int compared = 0, differing = 0;
        for (const auto& [where, region] : view.ShownTiles(0)) {
            const QRect seen = where.intersected(visible);
            if (seen.isEmpty()) continue;
            const QImage direct = service.GenerateTile(window.Document(), 0, region, view.TileScale(),
                                                       IPageInfoObserver::DefaultView)
                                      .get()
                                      .convertToFormat(QImage::Format_RGB32);
            ASSERT_EQ(direct.size(), where.size());
            for (int y = seen.top(); y <= seen.bottom(); ++y)
                for (int x = seen.left(); x <= seen.right(); ++x, ++compared)
                    differing += screen.pixel(x, y) != direct.pixel(x - where.left(), y - where.top());
        }
        EXPECT_GT(compared, visible.width() * visible.height() / 2);
        EXPECT_EQ(differing, 0);
        // Red on the left of the swatch's edge, white on its right, sharp.
        EXPECT_TRUE(Near(screen.pixelColor(190, 250), 0xE53935, 2));
        EXPECT_TRUE(Near(screen.pixelColor(210, 250), 0xFFFFFF, 2));
        EXPECT_LT(view.PictureBytes(), 256LL << 20);
    }
}

// Printing: the chosen pages, each drawn with the printing view at the
// printer's resolution and fitted to the paper.
TEST_F(ViewerTest, PrintsChosenPagesToAPdfFile) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    auto printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
    printer->setOutputFormat(QPrinter::PdfFormat);
    const auto out = temp.File("printed.pdf");
    printer->setOutputFileName(QString::fromStdString(out.string()));
    printer->setResolution(100);
    printer->setPageSize(QPageSize(QPageSize::A4));
    QSignalSpy printed(&window, &ViewerWindow::Printed);
    window.Print(printer, {0, 2});
    ASSERT_TRUE(printed.wait(kTimeout));
    ASSERT_TRUE(printed.first().first().toBool());
    const QRect paper = printer->pageRect(QPrinter::DevicePixel).toRect();
    ASSERT_EQ(service.printed.size(), 2u);
    for (const auto& [width, height] : service.printed) {
        EXPECT_NEAR(std::max(double(width) / paper.width(), double(height) / paper.height()), 1.0, 0.01)
            << width << "x" << height << " on " << paper.width() << "x" << paper.height();
    }
    Quirelle reader(nullptr);
    const int64_t id = reader.OpenDocument(out.string(), "").get().id;
    ASSERT_EQ(reader.GetPageCount(id), 2);
    const QImage first = reader.GeneratePageImage(id, 0, 210, 297).get();
    int red = 0;
    for (int y = 0; y < first.height(); ++y)
        for (int x = 0; x < first.width(); ++x) red += Near(first.pixelColor(x, y), 0xE53935, 40);
    EXPECT_GT(red, 20);
}

// F11 and Escape; F5, PgDn and Escape; dark pages keep their hues.
TEST_F(ViewerTest, FullScreenPresentationAndDarkPages) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    ASSERT_TRUE(WaitForPage(0));
    QTest::keyClick(&window, Qt::Key_F11);
    EXPECT_TRUE(window.isFullScreen());
    QTest::keyClick(&window, Qt::Key_Escape);
    EXPECT_FALSE(window.isFullScreen());

    QTest::keyClick(&window, Qt::Key_F5);
    PresentationWindow* show = window.Presentation();
    ASSERT_NE(show, nullptr);
    QSignalSpy shown(show, &PresentationWindow::PageShown);
    QTest::keyClick(show, Qt::Key_PageDown);
    ASSERT_TRUE(QTest::qWaitFor([&] { return show->Page() == 1 && !show->Picture().isNull(); }, kTimeout));
    const QSize screen = show->size() * show->devicePixelRatioF();
    EXPECT_TRUE(show->Picture().width() == screen.width() || show->Picture().height() == screen.height());
    QTest::keyClick(show, Qt::Key_Escape);
    EXPECT_EQ(window.Presentation(), nullptr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return window.View().CurrentPage() == 1; }, kTimeout));

    window.View().GoToPage(0);
    QApplication::setActiveWindow(&window);
    QTest::keyClick(&window, Qt::Key_D, Qt::ControlModifier | Qt::ShiftModifier);
    ASSERT_TRUE(window.View().DarkMode());
    ASSERT_TRUE(WaitForPage(0));
    QuirelleView& view = window.View();
    const QColor red = Pixel(window, InWindow(view.MapFromPage(0, {122, 530})));
    const QColor margin = Pixel(window, InWindow(view.MapFromPage(0, {560, 760})));
    EXPECT_LT(margin.lightness(), 20);
    EXPECT_GT(red.red(), 2 * red.green()) << red.name().toStdString();
    EXPECT_TRUE(QSettings().value("darkMode").toBool());
}

// Recent files, and each document back at its page and zoom.
TEST_F(ViewerTest, RemembersRecentFilesAndWhereEachDocumentWasLeft) {
    const auto a = temp.File("a.pdf"), b = temp.File("b.pdf");
    PdfBuilder().AddNumberedPages(10).Save(a);
    PdfBuilder().AddNumberedPages(3).Save(b);
    Open(a);
    QuirelleView& view = window.View();
    view.SetZoom(2.0);
    view.GoToPage(6);
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 6; }, kTimeout));
    Open(b);
    EXPECT_EQ(window.RecentFiles(),
              (QStringList{QString::fromStdString(b.string()), QString::fromStdString(a.string())}));
    Open(a);
    EXPECT_DOUBLE_EQ(view.Zoom(), 2.0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 6; }, kTimeout)) << view.CurrentPage();
    QSignalSpy opened(&window, &ViewerWindow::Opened);
    window.OpenFile(QString::fromStdString(b.string()), 2);
    ASSERT_TRUE(opened.wait(kTimeout));
    EXPECT_TRUE(QTest::qWaitFor([&] { return view.CurrentPage() == 2; }, kTimeout));
}

// A file without a readable page is an error, not "Page 0 of 0"; the
// command line answers --help and --version instead of opening them.
TEST_F(ViewerTest, RefusesAFileWithoutPagesAndAnswersHelpAndVersion) {
    const auto empty = temp.File("empty.pdf");
    QuirelleTest::WriteFile(
        empty, QuirelleTest::RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [] /Count 0 >>"}));
    QSignalSpy opened(&window, &ViewerWindow::Opened), error(&window, &ViewerWindow::ErrorShown);
    window.OpenFile(QString::fromStdString(empty.string()));
    ASSERT_TRUE(opened.wait(kTimeout));
    EXPECT_FALSE(opened.first().first().toBool());
    ASSERT_EQ(error.size(), 1);
    EXPECT_TRUE(error.first().first().toString().contains("no page could be read"))
        << error.first().first().toString().toStdString();
    EXPECT_EQ(window.Document(), -1);

    struct Case {
        QString argument, expected;
    };
    for (const Case& c : {Case{"--help", "--page"}, Case{"--version", QUIRELLE_VERSION}}) {
        QProcess viewer;
        viewer.start(QUIRELLE_VIEWER, {c.argument});
        ASSERT_TRUE(viewer.waitForFinished(kTimeout));
        EXPECT_EQ(viewer.exitCode(), 0) << c.argument.toStdString();
        EXPECT_TRUE(viewer.readAllStandardOutput().contains(c.expected.toUtf8())) << c.argument.toStdString();
    }
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    // Settings (recent files, places, dark mode) in a directory of their own.
    QTemporaryDir settings;
    QCoreApplication::setOrganizationName("QuirelleTests");
    QSettings::setDefaultFormat(QSettings::IniFormat);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
