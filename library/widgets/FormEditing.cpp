// Every change goes to the service as one request; once it is answered the
// fields are read again (a calculation may have changed others) and the
// view asks for its pictures again. One change is on its way at a time.

#include "FormEditing.h"

#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QTextEdit>
#include <algorithm>
#include <cmath>
#include <set>
#include <utility>

#include "GuiThread.h"
#include "QuirelleView.h"

namespace Orvane::PDF {

namespace {

const QColor kTint(40, 110, 255, 45);

bool Contains(const Rect& r, double x, double y) {
    return x >= std::min(r.left, r.right) && x <= std::max(r.left, r.right) && y >= std::min(r.bottom, r.top) &&
           y <= std::max(r.bottom, r.top);
}

Qt::Alignment AlignmentOf(const FormField& field) {
    switch (field.alignment) {
        case 1:
            return Qt::AlignHCenter;
        case 2:
            return Qt::AlignRight;
        default:
            return Qt::AlignLeft;
    }
}

}  // namespace

FormEditing::FormEditing(QuirelleView& view, IFormProvider& forms) : QObject(&view), view_(view), forms_(forms) {}

FormEditing::~FormEditing() = default;

void FormEditing::Load() {
    ++generation_;
    Close();
    busy_ = false;
    afterCommit_ = nullptr;
    fields_.clear();
    doc_ = view_.Document();
    view_.viewport()->update();
    if (doc_ < 0) return emit Loaded(0);
    const uint64_t generation = generation_;
    WhenReady(this, forms_.GetFormFields(doc_), [this, generation](std::future<std::vector<FormField>>& answer) {
        if (generation != generation_) return;
        try {
            fields_ = answer.get();
        } catch (const std::exception&) {
            fields_.clear();  // closed meanwhile, or a form that cannot be read: nothing to fill
        }
        view_.viewport()->update();
        emit Loaded(static_cast<int>(fields_.size()));
    });
}

void FormEditing::SetHighlighted(bool highlighted) {
    highlighted_ = highlighted;
    view_.viewport()->update();
}

bool FormEditing::Fillable(const FormField& field) const {
    return !field.readOnly && field.type != FormFieldType::PushButton && field.type != FormFieldType::Signature;
}

int FormEditing::FieldIndex(const std::string& name) const {
    for (size_t i = 0; i < fields_.size(); ++i) {
        if (fields_[i].name == name) return static_cast<int>(i);
    }
    return -1;
}

FormEditing::Target FormEditing::Hit(int page, double x, double y) const {
    for (size_t f = 0; f < fields_.size(); ++f) {
        const auto& widgets = fields_[f].widgets;
        for (size_t w = 0; w < widgets.size(); ++w) {
            if (widgets[w].page == page && Contains(widgets[w].rect, x, y)) return {int(f), int(w)};
        }
    }
    return {};
}

void FormEditing::Paint(QPainter& painter, int page) const {
    if (!highlighted_) return;
    for (const FormField& field : fields_) {
        if (!Fillable(field)) continue;
        for (const FormWidget& widget : field.widgets) {
            if (widget.page != page) continue;
            const Rect& r = widget.rect;
            painter.fillRect(QRectF(view_.MapFromPage(page, {r.left, r.top}), view_.MapFromPage(page, {r.right, r.bottom}))
                                 .normalized(),
                             kTint);
        }
    }
}

bool FormEditing::OnField(const QPoint& viewportPoint) const {
    const auto hit = view_.PageAt(viewportPoint);
    const Target target = hit ? Hit(hit->first, hit->second.x(), hit->second.y()) : Target{};
    return target.field >= 0 && Fillable(fields_[size_t(target.field)]);
}

bool FormEditing::Press(const QPoint& viewportPoint) {
    const auto hit = view_.PageAt(viewportPoint);
    const Target target = hit ? Hit(hit->first, hit->second.x(), hit->second.y()) : Target{};
    const bool onField = target.field >= 0 && Fillable(fields_[size_t(target.field)]);
    if (editor_) {
        // A click away from the editor commits it, then acts on what it hit.
        if (!onField) {
            Commit();
            return false;
        }
        const std::string name = fields_[size_t(target.field)].name;
        const int widget = target.widget;
        Commit([this, name, widget, viewportPoint] {
            const int field = FieldIndex(name);
            if (field >= 0 && widget < int(fields_[size_t(field)].widgets.size())) Act({field, widget}, viewportPoint);
        });
        return true;
    }
    if (!onField) return false;
    Act(target, viewportPoint);
    return true;
}

void FormEditing::Act(Target target, const QPoint& viewportPoint) {
    if (!blocked_.isEmpty()) return emit Blocked(blocked_);
    if (busy_) return;
    switch (fields_[size_t(target.field)].type) {
        case FormFieldType::Text:
            Open(target);
            break;
        case FormFieldType::CheckBox:
        case FormFieldType::RadioButton:
            Toggle(target);
            break;
        default:
            Choose(target, viewportPoint);
            break;
    }
}

QString FormEditing::EditedField() const {
    return editor_ ? QString::fromStdString(editedName_) : QString();
}

bool FormEditing::Edit(const QString& name) {
    const int field = FieldIndex(name.toStdString());
    if (field < 0 || fields_[size_t(field)].type != FormFieldType::Text || !Fillable(fields_[size_t(field)]) ||
        fields_[size_t(field)].widgets.empty() || !blocked_.isEmpty())
        return false;
    Open({field, 0});
    return true;
}

void FormEditing::Open(Target target) {
    Close();
    const FormField& field = fields_[size_t(target.field)];
    const FormWidget& widget = field.widgets[size_t(target.widget)];
    if (widget.page < 0) return;
    view_.EnsureVisible(widget.page, widget.rect);
    const QString text = QString::fromStdString(field.value);
    if (field.multiLine) {
        auto edit = new QTextEdit(view_.viewport());
        edit->setAcceptRichText(false);
        edit->setPlainText(text);
        edit->document()->setDocumentMargin(1);
        QTextOption option = edit->document()->defaultTextOption();
        option.setAlignment(AlignmentOf(field));
        edit->document()->setDefaultTextOption(option);
        edit->selectAll();
        editor_ = edit;
    } else {
        auto edit = new QLineEdit(text, view_.viewport());
        edit->setAlignment(AlignmentOf(field) | Qt::AlignVCenter);
        if (field.maxLength > 0) edit->setMaxLength(field.maxLength);
        if (field.password) edit->setEchoMode(QLineEdit::Password);
        edit->setTextMargins(1, 0, 1, 0);
        edit->selectAll();
        editor_ = edit;
    }
    editor_->setObjectName(QStringLiteral("fieldEditor"));
    editor_->setToolTip(QString::fromStdString(field.tooltip));
    editor_->setStyleSheet(QStringLiteral("border: 1px solid #2a6ef0; background: white; color: black;"));
    editor_->installEventFilter(this);
    editedName_ = field.name;
    editedWidget_ = target.widget;
    oldValue_ = field.value;
    Place();
    editor_->show();
    editor_->setFocus();
}

void FormEditing::Close() {
    if (!editor_) return;
    QWidget* editor = editor_;
    editor_ = nullptr;
    const bool hadFocus = editor->hasFocus();
    editor->hide();
    editor->removeEventFilter(this);
    editor->deleteLater();  // it may be in one of its own events
    if (hadFocus) view_.setFocus();
}

void FormEditing::Place() {
    if (!editor_) return;
    const int field = FieldIndex(editedName_);
    if (field < 0 || editedWidget_ >= int(fields_[size_t(field)].widgets.size())) return;
    const FormField& record = fields_[size_t(field)];
    const FormWidget& widget = record.widgets[size_t(editedWidget_)];
    const Rect& r = widget.rect;
    const QRect where = QRectF(view_.MapFromPage(widget.page, {r.left, r.top}),
                               view_.MapFromPage(widget.page, {r.right, r.bottom}))
                            .normalized()
                            .toAlignedRect();
    editor_->setGeometry(where);
    // The field's own size, or (sized to fit) what fills a single line.
    const double scale = view_.PageRect(widget.page).width() / std::max(1.0, view_.PageSize(widget.page).width());
    double pixels = record.fontSize > 0 ? record.fontSize * scale : (record.multiLine ? 12 * scale : where.height() * 0.65);
    pixels = std::clamp(pixels, 4.0, 400.0);
    QFont font = editor_->font();
    font.setPixelSize(static_cast<int>(std::lround(pixels)));
    editor_->setFont(font);
}

QString FormEditing::EditorText() const {
    if (auto* line = qobject_cast<QLineEdit*>(editor_.data())) return line->text();
    if (auto* text = qobject_cast<QTextEdit*>(editor_.data())) return text->toPlainText();
    return {};
}

void FormEditing::Cancel() {
    Close();
}

void FormEditing::Commit(std::function<void()> then) {
    if (!editor_) return;
    if (busy_) {
        // Leaving the field committed it a moment ago: what follows waits for that.
        if (then) afterCommit_ = std::move(then);
        return;
    }
    const std::string value = EditorText().toStdString();
    if (value == oldValue_) {
        Close();
        if (then) then();
        return;
    }
    QPointer<QWidget> editor = editor_;
    Change(
        forms_.SetFieldValue(doc_, editedName_, value),
        [this, editor, then] {
            if (editor_ == editor) Close();
            if (then) then();
            if (auto after = std::exchange(afterCommit_, nullptr)) after();
        },
        [this, editor] {
            afterCommit_ = nullptr;
            // The old value back, and the editor open for another try.
            if (!editor || editor_ != editor) return;
            const QString old = QString::fromStdString(oldValue_);
            if (auto* line = qobject_cast<QLineEdit*>(editor.data())) {
                line->setText(old);
                line->selectAll();
            } else if (auto* text = qobject_cast<QTextEdit*>(editor.data())) {
                text->setPlainText(old);
                text->selectAll();
            }
            editor->setFocus();
        });
}

void FormEditing::Step(bool forward) {
    // Every widget of every text field that can be filled, in the form's order.
    std::vector<std::pair<std::string, int>> order;
    int at = -1;
    for (const FormField& field : fields_) {
        if (field.type != FormFieldType::Text || !Fillable(field)) continue;
        for (size_t w = 0; w < field.widgets.size(); ++w) {
            if (field.widgets[w].page < 0) continue;
            if (field.name == editedName_ && int(w) == editedWidget_) at = int(order.size());
            order.emplace_back(field.name, int(w));
        }
    }
    if (order.empty() || at < 0) return Commit();
    const int n = int(order.size());
    const auto next = order[size_t(((at + (forward ? 1 : -1)) % n + n) % n)];
    Commit([this, next] {
        const int field = FieldIndex(next.first);
        if (field >= 0 && next.second < int(fields_[size_t(field)].widgets.size())) Open({field, next.second});
    });
}

void FormEditing::Change(std::future<void> request, std::function<void()> done, std::function<void()> refused) {
    busy_ = true;
    const uint64_t generation = generation_;
    WhenReady(this, std::move(request), [this, generation, done, refused](std::future<void>& answer) {
        if (generation != generation_) return;
        try {
            answer.get();
        } catch (const std::exception& e) {
            busy_ = false;
            if (refused) refused();
            emit Refused(QString::fromStdString(e.what()));
            return;
        }
        // A calculation may have changed other fields: all of them again.
        WhenReady(this, forms_.GetFormFields(doc_),
                  [this, generation, done](std::future<std::vector<FormField>>& fields) {
                      if (generation != generation_) return;
                      busy_ = false;
                      try {
                          fields_ = fields.get();
                      } catch (const std::exception&) {
                          fields_.clear();
                      }
                      view_.Redraw();
                      emit Changed();
                      if (done) done();
                  });
    });
}

void FormEditing::Toggle(Target target) {
    const FormField& field = fields_[size_t(target.field)];
    const std::string on = field.widgets[size_t(target.widget)].onState;
    if (field.type == FormFieldType::RadioButton) {
        if (on.empty() || field.value == on) return;  // a chosen option stays chosen
        return Change(forms_.SetFieldValue(doc_, field.name, on), nullptr, nullptr);
    }
    if (on.empty()) return Change(forms_.SetFieldChecked(doc_, field.name, field.value == "Off"), nullptr, nullptr);
    Change(forms_.SetFieldValue(doc_, field.name, field.value == on ? "Off" : on), nullptr, nullptr);
}

void FormEditing::Choose(Target target, const QPoint& at) {
    const FormField& field = fields_[size_t(target.field)];
    auto menu = new QMenu(view_.viewport());
    menu->setObjectName(QStringLiteral("fieldOptions"));
    menu->setAttribute(Qt::WA_DeleteOnClose);
    const std::set<std::string> selected(field.selected.begin(), field.selected.end());
    for (const FormOption& option : field.options) {
        QAction* action = menu->addAction(QString::fromStdString(option.label));
        action->setCheckable(true);
        action->setChecked(selected.count(option.exportValue) != 0);
        const std::string name = field.name, value = option.exportValue;
        const bool list = field.type == FormFieldType::ListBox, several = field.multiSelect;
        connect(action, &QAction::triggered, this, [this, name, value, list, several, selected](bool) {
            if (busy_ || FieldIndex(name) < 0) return;
            if (!list) return Change(forms_.SetFieldValue(doc_, name, value), nullptr, nullptr);
            std::vector<std::string> values{value};
            if (several) {
                // One more chosen, or one chosen less.
                std::set<std::string> now = selected;
                if (!now.erase(value)) now.insert(value);
                values.assign(now.begin(), now.end());
            }
            Change(forms_.SelectFieldOptions(doc_, name, values), nullptr, nullptr);
        });
    }
    if (field.options.empty() && !field.editable) menu->addAction(tr("(no options)"))->setEnabled(false);
    if (field.editable) {
        // A combo box that takes any text: typed in place like a text field.
        menu->addSeparator();
        const std::string name = field.name;
        const int widget = target.widget;
        connect(menu->addAction(tr("Other value...")), &QAction::triggered, this, [this, name, widget](bool) {
            const int index = FieldIndex(name);
            if (!busy_ && index >= 0 && widget < int(fields_[size_t(index)].widgets.size())) Open({index, widget});
        });
    }
    menu->popup(view_.viewport()->mapToGlobal(at));
}

bool FormEditing::eventFilter(QObject* watched, QEvent* event) {
    if (watched == editor_ && event->type() == QEvent::FocusOut) {
        // Leaving the field for another widget commits it; a dialog or a
        // menu coming up in front does not.
        const Qt::FocusReason reason = static_cast<QFocusEvent*>(event)->reason();
        if (reason != Qt::ActiveWindowFocusReason && reason != Qt::PopupFocusReason) Commit();
        return QObject::eventFilter(watched, event);
    }
    if (watched != editor_ || (event->type() != QEvent::KeyPress && event->type() != QEvent::ShortcutOverride))
        return QObject::eventFilter(watched, event);
    auto* key = static_cast<QKeyEvent*>(event);
    const bool multiLine = qobject_cast<QTextEdit*>(editor_.data()) != nullptr;
    const bool enter = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
    const bool commits = enter && (!multiLine || (key->modifiers() & Qt::ControlModifier));
    const bool ours = key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab || key->key() == Qt::Key_Escape || commits;
    if (!ours) return QObject::eventFilter(watched, event);
    // Ahead of the window's shortcuts: these keys belong to the editor.
    if (event->type() == QEvent::ShortcutOverride) {
        event->accept();
        return true;
    }
    if (key->key() == Qt::Key_Escape) {
        Cancel();
    } else if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
        Step(key->key() == Qt::Key_Tab && !(key->modifiers() & Qt::ShiftModifier));
    } else {
        Commit();
    }
    return true;
}

}  // namespace Orvane::PDF
