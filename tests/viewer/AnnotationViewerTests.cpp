// Marking up pages in the viewer with the mouse and the keyboard, on the real
// service under a virtual X server: a highlight of a dragged selection, ink,
// the annotations tab, moving and deleting with undo, and a document that
// forbids annotating. Each test leaves a screenshot in artifacts/viewer.

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QMouseEvent>
#include <QSettings>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>
#include <algorithm>
#include <cstdlib>

#include "AnnotationCommands.h"
#include "ViewerWindow.h"
#include "tests/viewer/WindowTest.h"
#include "tests/support/PdfBuilder.h"

namespace {

using namespace Orvane::PDF;
constexpr int kTimeout = QuirelleTest::kWindowTimeout;

class AnnotationViewerTest : public QuirelleTest::WindowTest {
protected:
    void SetUp() override {
        WindowTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_NE(window.Annotations(), nullptr);
    }
    void Open(const std::filesystem::path& path) {
        QSignalSpy opened(&window, &ViewerWindow::Opened);
        window.OpenFile(QString::fromStdString(path.string()));
        ASSERT_TRUE(opened.wait(kTimeout));
        ASSERT_TRUE(opened.first().first().toBool());
        QuirelleView& view = window.View();
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return view.PageImage(0).size() == view.PageRect(0).size() * view.devicePixelRatioF(); }, kTimeout));
        view.setFocus();
    }
    // A mouse gesture over page 0 through page-space points: press, moves, release.
    void Drag(const std::vector<QPointF>& points) {
        QuirelleView& view = window.View();
        QWidget* port = view.viewport();
        auto send = [&](QEvent::Type type, const QPointF& page, Qt::MouseButtons buttons) {
            const QPoint at = view.MapFromPage(0, page).toPoint();
            QMouseEvent event(type, at, port->mapToGlobal(at),
                              type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, buttons, Qt::NoModifier);
            QApplication::sendEvent(port, &event);
        };
        send(QEvent::MouseButtonPress, points.front(), Qt::LeftButton);
        for (const QPointF& point : points) send(QEvent::MouseMove, point, Qt::LeftButton);
        send(QEvent::MouseButtonRelease, points.back(), Qt::NoButton);
    }
    // Runs what makes an edit and waits for it and for page 0 drawn again.
    void Edit(const std::function<void()>& command) {
        const qint64 before = window.View().PageImage(0).cacheKey();
        QSignalSpy edited(&window, &ViewerWindow::Edited);
        command();
        ASSERT_TRUE(edited.wait(kTimeout));
        ASSERT_TRUE(QTest::qWaitFor([&] { return window.View().PageImage(0).cacheKey() != before; }, kTimeout));
    }
    // Page 0's annotations but its links.
    std::vector<Annotation> Listed() {
        auto listed = service.GetAnnotations(window.Document(), 0).get();
        listed.erase(
            std::remove_if(listed.begin(), listed.end(), [](const Annotation& a) { return a.type == AnnotLink; }),
            listed.end());
        return listed;
    }
    // The page's picture: pixels that differ from the other's, inside and outside a
    // page-space box (by more than the rounding a blended annotation brings to the page).
    std::pair<int, int> Changed(const QImage& before, const QImage& after, const Rect& box) {
        QuirelleView& view = window.View();
        const QRect where = view.PageRect(0);
        const QRectF inside = QRectF(view.MapFromPage(0, {box.left, box.top}) - where.topLeft(),
                                     view.MapFromPage(0, {box.right, box.bottom}) - where.topLeft())
                                  .normalized()
                                  .adjusted(-3, -3, 3, 3);
        std::pair<int, int> changed{0, 0};
        for (int y = 0; y < after.height(); ++y) {
            for (int x = 0; x < after.width(); ++x) {
                const QRgb a = before.pixel(x, y), b = after.pixel(x, y);
                if (std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                              std::abs(qBlue(a) - qBlue(b))}) > 8)
                    ++(inside.contains(x, y) ? changed.first : changed.second);
            }
        }
        return changed;
    }

};

// A dragged selection over two lines, highlighted with the shortcut: one quad
// per line, drawn where the text is and nowhere else; the Annotations tab lists
// it and a click there picks it; Ctrl+Z and Ctrl+Shift+Z take it away and back.
TEST_F(AnnotationViewerTest, HighlightsADraggedSelectionListsItAndUndoes) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    QuirelleView& view = window.View();
    QSignalSpy selected(&view, &QuirelleView::SelectionChanged);
    Drag({{73, 684}, {150, 670}, {160, 664}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.Selection().rects.size() == 2; }, kTimeout));
    const QImage plain = view.PageImage(0);
    Edit([&] { QTest::keyClick(&window, Qt::Key_H, Qt::ControlModifier | Qt::ShiftModifier); });
    auto listed = Listed();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].type, AnnotHighlight);
    EXPECT_EQ(listed[0].quadPoints.size(), 8u);
    const auto [inside, outside] = Changed(plain, view.PageImage(0), listed[0].rect);
    EXPECT_GT(inside, 500);
    EXPECT_EQ(outside, 0);

    AnnotationsPanel& panel = window.Annotations()->Panel();
    window.Sidebar().setCurrentWidget(&panel);
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.Entries().size() == 1; }, kTimeout));
    QTreeWidgetItem* entry = panel.topLevelItem(0)->child(0);
    EXPECT_TRUE(entry->text(0).startsWith("Highlight")) << entry->text(0).toStdString();
    QTest::mouseClick(panel.viewport(), Qt::LeftButton, Qt::NoModifier, panel.visualItemRect(entry).center());
    ASSERT_TRUE(QTest::qWaitFor([&] { return window.Annotations()->Tools().Selected().has_value(); }, kTimeout));
    EXPECT_EQ(window.Annotations()->Tools().Selected()->id, listed[0].id);

    Edit([&] { QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier); });
    EXPECT_TRUE(Listed().empty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return panel.Entries().empty(); }, kTimeout));
    Edit([&] { QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier); });
    listed = Listed();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].quadPoints.size(), 8u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return panel.Entries().size() == 1; }, kTimeout));
}

// Ink follows the mouse in page space; the stroke is drawn near its path only.
// Picked and dragged it moves, by a handle it grows; Delete removes it and undo
// brings it back.
TEST_F(AnnotationViewerTest, DrawsInkWithTheMouseMovesAndDeletesIt) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    QuirelleView& view = window.View();
    const std::vector<QPointF> path{{420, 770}, {450, 750}, {480, 740}, {510, 750}, {540, 770}};
    const QImage plain = view.PageImage(0);
    window.Annotations()->Action("tool-ink")->trigger();
    Edit([&] { Drag(path); });
    auto listed = Listed();
    ASSERT_EQ(listed.size(), 1u);
    ASSERT_EQ(listed[0].type, AnnotInk);
    ASSERT_EQ(listed[0].inkStrokes.size(), 1u);
    const auto& stroke = listed[0].inkStrokes[0];
    ASSERT_GE(stroke.size(), 2u);
    EXPECT_NEAR(stroke.front().x, 420, 1.5);
    EXPECT_NEAR(stroke.front().y, 770, 1.5);
    EXPECT_NEAR(stroke.back().x, 540, 1.5);
    const auto [inside, outside] = Changed(plain, view.PageImage(0), listed[0].rect);
    EXPECT_GT(inside, 100);
    EXPECT_EQ(outside, 0);

    window.Annotations()->Action("tool-select")->trigger();
    const Rect was = listed[0].rect;
    Drag({{480, 741}});  // a click on the stroke picks it
    ASSERT_TRUE(window.Annotations()->Tools().Selected().has_value());
    Edit([&] { Drag({{480, 741}, {470, 720}, {460, 701}}); });
    listed = Listed();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_NEAR(listed[0].rect.left, was.left - 20, 1.5);
    EXPECT_NEAR(listed[0].rect.top, was.top - 40, 1.5);
    // Its bottom-right handle dragged: the opposite corner stays.
    const Rect moved = listed[0].rect;
    AnnotationTools& tools = window.Annotations()->Tools();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return tools.Selected() && tools.Selected()->rect.left == moved.left; }, kTimeout));
    Edit([&] { Drag({{moved.right, moved.bottom}, {moved.right + 20, moved.bottom - 10}}); });
    listed = Listed();
    EXPECT_NEAR(listed.at(0).rect.left, moved.left, 1.5);
    EXPECT_NEAR(listed.at(0).rect.top, moved.top, 1.5);
    EXPECT_NEAR(listed.at(0).rect.right, moved.right + 20, 1.5);
    EXPECT_NEAR(listed.at(0).rect.bottom, moved.bottom - 10, 1.5);
    Edit([&] { QTest::keyClick(&view, Qt::Key_Delete); });
    EXPECT_TRUE(Listed().empty());
    Edit([&] { window.Undo(); });
    listed = Listed();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].type, AnnotInk);
    EXPECT_NEAR(listed[0].rect.right, moved.right + 20, 1.5);
    // Undo of the resize and the move finds the annotation under the id it was made again with.
    Edit([&] { window.Undo(); });
    Edit([&] { window.Undo(); });
    EXPECT_NEAR(Listed().at(0).rect.left, was.left, 1.5);
    EXPECT_NEAR(Listed().at(0).rect.right, was.right, 1.5);
}

// A click on a note with a reply picks the note; deleted, it takes the reply
// with it, and undo brings both back, the reply answering the note's new id.
TEST_F(AnnotationViewerTest, UndoOfADeletedNoteBringsBackItsReplies) {
    Open(QuirelleTest::SamplesDir() / "sample.pdf");
    AnnotationCommands& commands = *window.Annotations();
    commands.textPrompt = [](QString& text) {
        text = "first";
        return true;
    };
    commands.Action("tool-note")->trigger();
    Edit([&] { Drag({{400, 760}}); });
    const auto notes = Listed();
    const auto note = std::find_if(notes.begin(), notes.end(), [](const Annotation& a) { return a.type == AnnotText; });
    ASSERT_NE(note, notes.end());
    NewAnnotation reply;
    reply.type = AnnotText;
    reply.inReplyTo = note->id;
    reply.contents = "answer";
    service.CreateAnnotation(window.Document(), 0, reply).get();
    commands.Changed(0);
    AnnotationTools& tools = commands.Tools();
    ASSERT_TRUE(QTest::qWaitFor([&] { return tools.Listed(0).size() == Listed().size() + 3; }, kTimeout));

    commands.Action("tool-select")->trigger();
    Drag({{note->rect.left + 5, note->rect.top - 5}});  // the note, not the reply lying on it
    ASSERT_TRUE(tools.Selected().has_value());
    ASSERT_EQ(tools.Selected()->id, note->id);
    Edit([&] { QTest::keyClick(&window.View(), Qt::Key_Delete); });
    for (const Annotation& a : Listed()) EXPECT_NE(a.type, AnnotText);

    Edit([&] { window.Undo(); });
    const auto back = Listed();
    std::vector<Annotation> texts;
    std::copy_if(back.begin(), back.end(), std::back_inserter(texts),
                 [](const Annotation& a) { return a.type == AnnotText; });
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].contents, "first");
    EXPECT_EQ(texts[1].contents, "answer");
    EXPECT_EQ(texts[1].inReplyTo, texts[0].id);
}

// A document whose permissions forbid annotating: tools and commands off,
// saying why, and a drag with the ink tool makes nothing.
TEST_F(AnnotationViewerTest, ADocumentThatForbidsAnnotatingGetsNoTools) {
    const auto path = temp.File("locked.pdf");
    QuirelleTest::Encryption lock;
    lock.ownerPassword = "owner";
    lock.permissions = -4 & ~32;  // everything but adding or changing annotations
    QuirelleTest::PdfBuilder().AddNumberedPages(1).Encrypt(lock).Save(path);
    Open(path);
    AnnotationCommands& commands = *window.Annotations();
    QAction* ink = commands.Action("tool-ink");
    EXPECT_FALSE(ink->isEnabled());
    EXPECT_TRUE(ink->toolTip().contains("permissions")) << ink->toolTip().toStdString();
    EXPECT_FALSE(commands.Tools().Enabled());
    commands.Tools().SetTool(AnnotationTools::Tool::Ink);
    Drag({{100, 100}, {150, 150}, {200, 100}});
    QTest::qWait(200);
    EXPECT_TRUE(Listed().empty());
    EXPECT_FALSE(window.Modified());
}

}  // namespace
