#pragma once

// Filling in a document's form inside a QuirelleView: the fields' widgets
// tinted, a text field edited in place by an editor laid over its widget (at
// the field's font size and alignment, following zoom and scrolling), check
// boxes and radio buttons switched by a click, the options of combo and list
// boxes offered in a menu (an editable combo box also takes typed text).
// Tab and Shift+Tab commit and go to the next or previous text field in the
// form's order; Enter commits (Ctrl+Enter in a multi-line field), Escape
// cancels. A value the document's scripts refuse
// is reported through Refused and the editor stays open with the old value.
//
// The view owns one when its service is an IFormProvider and calls the hooks
// (Paint, Press, Place); the application says whether filling is allowed.
// GUI thread only.

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QString>
#include <Quirelle>
#include <functional>
#include <vector>

#include "WidgetsExport.h"

class QPainter;
class QWidget;

namespace Orvane::PDF {

class QuirelleView;

class QUIRELLE_WIDGETS_EXPORT FormEditing : public QObject {
    Q_OBJECT
public:
    FormEditing(QuirelleView& view, IFormProvider& forms);
    ~FormEditing() override;

    // Reads the fields of the document the view shows (after SetDocument or
    // Reload); an open editor is dropped.
    void Load();
    const std::vector<FormField>& Fields() const { return fields_; }

    // The tint over the fields' widgets.
    void SetHighlighted(bool highlighted);
    bool Highlighted() const { return highlighted_; }
    // Filling refused with this reason (empty: allowed); a click on a field
    // then reports it through Blocked.
    void SetBlocked(const QString& reason) { blocked_ = reason; }

    // The open editor (a QLineEdit or QTextEdit), or null; the field it edits.
    QWidget* Editor() const { return editor_; }
    QString EditedField() const;
    // Opens the editor on a text field's first widget; false when there is no
    // such field that can be filled.
    bool Edit(const QString& name);
    void Commit(std::function<void()> then = nullptr);
    void Cancel();

    // Hooks of the view: paints the tint of a page; takes a left button press
    // when it hits a field's widget (true); moves the editor with the page.
    void Paint(QPainter& painter, int page) const;
    bool Press(const QPoint& viewportPoint);
    // Whether the point is on a field's widget that can be filled in.
    bool OnField(const QPoint& viewportPoint) const;
    void Place();

signals:
    void Loaded(int fields);
    // A request changed the form; Fields() has the new values.
    void Changed();
    // The service refused a value: the script's message, or why the value does not fit.
    void Refused(const QString& message);
    void Blocked(const QString& reason);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct Target {
        int field = -1;
        int widget = -1;
    };
    Target Hit(int page, double x, double y) const;
    bool Fillable(const FormField& field) const;
    // What a click on the target does: edit, switch or offer the options.
    void Act(Target target, const QPoint& viewportPoint);
    void Open(Target target);
    void Close();
    QString EditorText() const;
    // Moves to the next (or previous) text field after the edited one.
    void Step(bool forward);
    // Runs a change, then reads the fields again and refreshes the pictures.
    void Change(std::future<void> request, std::function<void()> done, std::function<void()> refused);
    void Toggle(Target target);
    void Choose(Target target, const QPoint& at);
    int FieldIndex(const std::string& name) const;

    QuirelleView& view_;
    IFormProvider& forms_;
    std::vector<FormField> fields_;
    int64_t doc_ = -1;
    uint64_t generation_ = 0;  // bumped by every Load: older answers are dropped
    bool highlighted_ = true;
    QString blocked_;
    QPointer<QWidget> editor_;
    std::string editedName_;
    int editedWidget_ = -1;
    std::string oldValue_;
    bool busy_ = false;  // a change is on its way
    std::function<void()> afterCommit_;  // asked while a commit was on its way
};

}  // namespace Orvane::PDF
