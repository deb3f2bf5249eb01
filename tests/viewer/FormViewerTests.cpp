// Filling in a form in the viewer's window on a real service, under a
// virtual X server: a text field edited in place, Tab through the fields
// with a calculated total following, a check box and a combo box switched
// by clicks, a value the document's script refuses, and a document that
// does not allow filling. Each test leaves a screenshot in artifacts/viewer.

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QSettings>
#include <QSignalSpy>
#include <QStatusBar>
#include <QTest>

#include "ViewerWindow.h"
#include "tests/viewer/WindowTest.h"
#include "tests/support/PdfBuilder.h"

namespace {

using namespace Orvane::PDF;
using QuirelleTest::FieldLayout;
using QuirelleTest::PdfBuilder;
using Kind = FieldLayout::Kind;
constexpr int kTimeout = QuirelleTest::kWindowTimeout;

class FormViewerTest : public QuirelleTest::WindowTest {
protected:
    // One page: a name, a check box, a combo box, a total of a and b, an age
    // the document's script keeps below 120.
    void OpenForm(const std::string& file = "form.pdf",
                  std::optional<QuirelleTest::Encryption> encryption = std::nullopt) {
        const auto path = temp.File(file);
        PdfBuilder builder;
        builder.AddNumberedPages(1);
        FieldLayout total{Kind::Text, "total", "", {}, {{0, {340, 600, 440, 580}}}, true};
        total.calculateScript = "AFSimple_Calculate(\"SUM\", new Array(\"a\", \"b\"));";
        FieldLayout age{Kind::Text, "age", "", {}, {{0, {100, 550, 200, 530}}}};
        age.validateScript = "if (event.value > 120) { app.alert(\"Nobody is that old\"); event.rc = false; }";
        builder.AddField({Kind::Text, "name", "", {}, {{0, {100, 700, 300, 680}}}})
            .AddField({Kind::CheckBox, "agree", "Off", {}, {{0, {100, 650, 115, 635}}}})
            .AddField({Kind::Choice, "colour", "Red", {"Red", "Green", "Blue"}, {{0, {300, 650, 400, 635}}}})
            .AddField({Kind::Text, "a", "", {}, {{0, {100, 600, 200, 580}}}})
            .AddField({Kind::Text, "b", "", {}, {{0, {220, 600, 320, 580}}}})
            .AddField(total)
            .AddField(age);
        if (encryption) builder.Encrypt(*encryption);
        builder.Save(path);
        QSignalSpy opened(&window, &ViewerWindow::Opened);
        window.OpenFile(QString::fromStdString(path.string()));
        ASSERT_TRUE(opened.wait(kTimeout));
        ASSERT_TRUE(QTest::qWaitFor([&] { return Forms().Fields().size() == 7; }, kTimeout));
        ASSERT_TRUE(QTest::qWaitFor([&] { return !window.View().PageImage(0).isNull(); }, kTimeout));
    }
    FormEditing& Forms() { return *window.View().Forms(); }
    QPoint Centre(const Rect& r) {
        return window.View().MapFromPage(0, {(r.left + r.right) / 2, (r.top + r.bottom) / 2}).toPoint();
    }
    void Click(const Rect& r) { QTest::mouseClick(window.View().viewport(), Qt::LeftButton, {}, Centre(r)); }
    // The page's picture inside a rectangle (page space).
    QImage Picture(const Rect& r) {
        QuirelleView& view = window.View();
        const QPointF origin = view.PageRect(0).topLeft();
        const QRectF box = QRectF(view.MapFromPage(0, {r.left, r.top}) - origin,
                                  view.MapFromPage(0, {r.right, r.bottom}) - origin)
                               .normalized();
        const qreal ratio = view.devicePixelRatioF();
        return view.PageImage(0).copy(QRectF(box.topLeft() * ratio, box.size() * ratio).toRect());
    }
    bool Redrawn(const Rect& r, const QImage& before) {
        return QTest::qWaitFor([&] { return Picture(r) != before; }, kTimeout);
    }
    std::string Value(const std::string& name) {
        for (const FormField& field : service.GetFormFields(window.Document()).get())
            if (field.name == name) return field.value;
        return "?";
    }
    // Types into the open editor and presses key.
    void Type(const QString& text, Qt::Key key) {
        QWidget* editor = Forms().Editor();
        ASSERT_NE(editor, nullptr);
        QTest::keyClicks(editor, text);
        QTest::keyClick(editor, key);
    }

    const Rect name{100, 700, 300, 680}, agree{100, 650, 115, 635}, colour{300, 650, 400, 635};
    const Rect a{100, 600, 200, 580}, b{220, 600, 320, 580}, total{340, 600, 440, 580}, age{100, 550, 200, 530};
    const Rect words{60, 740, 200, 700};  // "Page 1", away from every field
};

TEST_F(FormViewerTest, EditsATextFieldInPlaceAndRedrawsOnlyItsWidget) {
    OpenForm();
    QuirelleView& view = window.View();
    auto* highlight = window.findChild<QAction*>("highlightFields");
    ASSERT_NE(highlight, nullptr);
    EXPECT_TRUE(highlight->isChecked());
    // The empty field shows the tint over white paper.
    const QColor tinted = view.grab().toImage().pixelColor(Centre(name));
    EXPECT_GT(tinted.blue(), tinted.red() + 20) << tinted.name().toStdString();

    const QImage field = Picture(name), elsewhere = Picture(words);
    Click(name);
    auto* editor = qobject_cast<QLineEdit*>(Forms().Editor());
    ASSERT_NE(editor, nullptr);
    EXPECT_TRUE(editor->geometry().contains(Centre(name)));
    const double scale = view.PageRect(0).width() / view.PageSize(0).width();
    EXPECT_NEAR(editor->font().pixelSize(), 10 * scale, 1.0);  // the field's own 10 points
    QSignalSpy changed(&Forms(), &FormEditing::Changed);
    Type("Zed", Qt::Key_Return);
    ASSERT_TRUE(changed.wait(kTimeout));
    EXPECT_EQ(Forms().Editor(), nullptr);
    EXPECT_EQ(Value("name"), "Zed");
    EXPECT_TRUE(Redrawn(name, field));
    EXPECT_EQ(Picture(words), elsewhere);
    EXPECT_TRUE(window.windowTitle().endsWith(" *"));

    // Escape leaves the value as it was.
    Click(name);
    Type("Bob", Qt::Key_Escape);
    EXPECT_EQ(Forms().Editor(), nullptr);
    EXPECT_EQ(Value("name"), "Zed");
    // A click on another field commits this one and edits that one.
    Click(name);
    QTest::keyClicks(Forms().Editor(), "Ann");
    Click(a);
    ASSERT_TRUE(QTest::qWaitFor([&] { return Forms().EditedField() == "a"; }, kTimeout));
    EXPECT_EQ(Value("name"), "Ann");
}

TEST_F(FormViewerTest, TabCommitsAndMovesOnWhileTheTotalFollows) {
    OpenForm();
    const QImage before = Picture(total);
    Click(a);
    Type("2", Qt::Key_Tab);
    ASSERT_TRUE(QTest::qWaitFor([&] { return Forms().EditedField() == "b"; }, kTimeout));
    EXPECT_EQ(Value("a"), "2");
    EXPECT_EQ(Value("total"), "2");
    ASSERT_TRUE(Redrawn(total, before));
    const QImage two = Picture(total);
    QSignalSpy changed(&Forms(), &FormEditing::Changed);
    Type("3.5", Qt::Key_Return);
    ASSERT_TRUE(changed.wait(kTimeout));
    EXPECT_EQ(Value("total"), "5.5");
    EXPECT_TRUE(Redrawn(total, two));
    // Shift+Tab goes back, from the first text field to the last.
    Click(name);
    QTest::keyClick(Forms().Editor(), Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_TRUE(QTest::qWaitFor([&] { return Forms().EditedField() == "age"; }, kTimeout));
}

TEST_F(FormViewerTest, ClicksToggleACheckBoxAndChooseAnOption) {
    OpenForm();
    QSignalSpy changed(&Forms(), &FormEditing::Changed);
    Click(colour);
    QMenu* options = nullptr;
    ASSERT_TRUE(QTest::qWaitFor([&] { return (options = window.findChild<QMenu*>("fieldOptions")) != nullptr; }));
    ASSERT_EQ(options->actions().size(), 3);
    EXPECT_TRUE(options->actions()[0]->isChecked());
    options->actions()[2]->trigger();
    ASSERT_TRUE(changed.wait(kTimeout));
    EXPECT_EQ(Value("colour"), "Blue");

    // Off, on, off, on: each click switches it and the page shows it.
    const QImage off = Picture(agree);
    for (const char* state : {"Yes", "Off", "Yes"}) {
        Click(agree);
        ASSERT_TRUE(changed.wait(kTimeout));
        EXPECT_EQ(Value("agree"), state);
    }
    EXPECT_TRUE(Redrawn(agree, off));
}

TEST_F(FormViewerTest, ARefusedValueIsShownAndFillingNeedsPermission) {
    OpenForm();
    QSignalSpy errors(&window, &ViewerWindow::ErrorShown);
    Click(age);
    Type("400", Qt::Key_Return);
    ASSERT_TRUE(errors.wait(kTimeout));
    EXPECT_TRUE(errors.first().first().toString().contains("Nobody is that old"));
    auto* editor = qobject_cast<QLineEdit*>(Forms().Editor());
    ASSERT_NE(editor, nullptr);  // still open, for another try
    EXPECT_EQ(editor->text(), "");
    EXPECT_EQ(Value("age"), "");

    // Neither annotating nor filling in allowed (bits 6 and 9 of /P clear).
    QuirelleTest::Encryption locked;
    locked.ownerPassword = "owner";
    locked.permissions = -4 & ~(1 << 5) & ~(1 << 8);
    for (QMessageBox* box : window.findChildren<QMessageBox*>()) box->close();
    OpenForm("locked.pdf", locked);
    Click(name);
    EXPECT_EQ(Forms().Editor(), nullptr);
    EXPECT_TRUE(window.statusBar()->currentMessage().contains("does not allow filling"))
        << window.statusBar()->currentMessage().toStdString();
}

}  // namespace
