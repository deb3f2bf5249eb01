#include "AnnotationCommands.h"

#include <QAction>
#include <QActionGroup>
#include <QColorDialog>
#include <QInputDialog>
#include <QMenu>
#include <QMenuBar>
#include <QSettings>
#include <QWidget>
#include <algorithm>
#include <set>

namespace Orvane::PDF {

namespace {

struct Swatch {
    const char* name;
    uint32_t colour;
};
const Swatch kSwatches[] = {{QT_TR_NOOP("Yellow"), 0xFFD400},
                            {QT_TR_NOOP("Green"), 0x3CB44B},
                            {QT_TR_NOOP("Blue"), 0x1E78E6},
                            {QT_TR_NOOP("Red"), 0xE03030},
                            {QT_TR_NOOP("Black"), 0x000000}};

// What makes an annotation again as the list gave it (a note with a new
// popup; its dates are not kept). Replies are made again one by one.
NewAnnotation Remake(const Annotation& a) {
    NewAnnotation made;
    made.type = a.type;
    made.hasColor = a.hasColor;
    made.color = a.color;
    made.hasInteriorColor = a.hasInteriorColor;
    made.interiorColor = a.interiorColor;
    made.opacity = a.opacity;
    made.borderWidth = a.borderWidth;
    made.author = a.author;
    made.contents = a.contents;
    made.rect = a.rect;
    made.at = {a.rect.left, a.rect.top};
    made.strokes = a.inkStrokes;
    made.fontSize = a.fontSize > 0 ? a.fontSize : made.fontSize;
    made.textColor = a.textColor;
    if (a.linePoints.size() == 2) made.from = a.linePoints[0], made.to = a.linePoints[1];
    made.arrow = a.lineEnd.find("Arrow") != std::string::npos;
    for (size_t i = 0; i + 3 < a.quadPoints.size(); i += 4) {
        Rect line{a.quadPoints[i].x, a.quadPoints[i].y, a.quadPoints[i].x, a.quadPoints[i].y};
        for (size_t k = i; k < i + 4; ++k) {
            line.left = std::min(line.left, a.quadPoints[k].x);
            line.right = std::max(line.right, a.quadPoints[k].x);
            line.top = std::max(line.top, a.quadPoints[k].y);
            line.bottom = std::min(line.bottom, a.quadPoints[k].y);
        }
        made.lines.push_back(line);
    }
    return made;
}

// The replies to id among a page's annotations and the replies to those,
// each after the one it answers (a loop of replies in a damaged file ends).
std::vector<Annotation> repliesTo(const std::vector<Annotation>& listed, int64_t id) {
    std::vector<Annotation> replies;
    std::set<int64_t> answered{id};
    std::vector<int64_t> next{id};
    while (!next.empty()) {
        const int64_t parent = next.back();
        next.pop_back();
        for (const Annotation& a : listed) {
            if (a.inReplyTo != parent || !answered.insert(a.id).second) continue;
            replies.push_back(a);
            next.push_back(a.id);
        }
    }
    return replies;
}

// What puts back the fields a change sets.
AnnotationChange Inverse(const Annotation& before, const AnnotationChange& change) {
    AnnotationChange back;
    if (change.contents) back.contents = before.contents;
    if (change.author) back.author = before.author;
    if (change.color) back.color = before.color;
    if (change.opacity) back.opacity = before.opacity;
    if (change.rect) back.rect = before.rect;
    return back;
}

}  // namespace

AnnotationCommands::AnnotationCommands(QuirelleView& view, IAnnotationProvider& service, QWidget* window)
    : QObject(window),
      view_(view),
      service_(service),
      window_(window),
      tools_(new AnnotationTools(view, service, this)),
      panel_(new AnnotationsPanel(service)) {
    author_ = QSettings().value("author").toString();
    if (author_.isEmpty()) author_ = qEnvironmentVariable("USER", qEnvironmentVariable("USERNAME"));
    colourPrompt = [this](QColor& colour) {
        colour = QColorDialog::getColor(colour, window_, tr("Annotation colour"));
        return colour.isValid();
    };
    textPrompt = [this](QString& text) {
        bool ok = false;
        text = QInputDialog::getMultiLineText(window_, tr("Annotation text"), tr("Text:"), text, &ok);
        return ok;
    };

    auto make = [this](const QString& name, const QString& text, QKeySequence keys, auto slot) {
        auto action = new QAction(text, this);
        action->setObjectName(name);
        action->setShortcut(keys);
        connect(action, &QAction::triggered, this, slot);
        return action;
    };
    const struct {
        const char* name;
        const char* text;
        const char* keys;
        int type;
    } markups[] = {{"highlight", QT_TR_NOOP("&Highlight"), "Ctrl+Shift+H", AnnotHighlight},
                   {"underline", QT_TR_NOOP("&Underline"), "Ctrl+Shift+U", AnnotUnderline},
                   {"strikeout", QT_TR_NOOP("&Strike out"), "Ctrl+Shift+X", AnnotStrikeOut},
                   {"squiggly", QT_TR_NOOP("S&quiggly underline"), "", AnnotSquiggly}};
    for (const auto& m : markups) {
        const int type = m.type;
        markupActions_.push_back(make(m.name, tr(m.text), QKeySequence(m.keys), [this, type] {
            if (!tools_->MarkSelection(type)) emit Message(tr("Select some text first"));
        }));
    }
    toolGroup_ = new QActionGroup(this);
    const struct {
        const char* name;
        const char* text;
        const char* keys;
        AnnotationTools::Tool tool;
    } tools[] = {
        {"tool-select", QT_TR_NOOP("Select &text and annotations"), "Ctrl+Shift+A", AnnotationTools::Tool::Select},
        {"tool-note", QT_TR_NOOP("&Note"), "Ctrl+Shift+N", AnnotationTools::Tool::Note},
        {"tool-ink", QT_TR_NOOP("&Ink"), "Ctrl+Shift+K", AnnotationTools::Tool::Ink},
        {"tool-square", QT_TR_NOOP("S&quare"), "", AnnotationTools::Tool::Square},
        {"tool-circle", QT_TR_NOOP("&Circle"), "", AnnotationTools::Tool::Circle},
        {"tool-line", QT_TR_NOOP("&Line"), "", AnnotationTools::Tool::Line},
        {"tool-arrow", QT_TR_NOOP("&Arrow"), "", AnnotationTools::Tool::Arrow}};
    for (const auto& t : tools) {
        const AnnotationTools::Tool tool = t.tool;
        QAction* action = make(t.name, tr(t.text), QKeySequence(t.keys), [this, tool] { tools_->SetTool(tool); });
        action->setCheckable(true);
        action->setChecked(tool == AnnotationTools::Tool::Select);
        toolGroup_->addAction(action);
        toolActions_.push_back(action);
    }
    connect(tools_, &AnnotationTools::ToolChanged, this,
            [this](AnnotationTools::Tool tool) { toolActions_[static_cast<size_t>(tool)]->setChecked(true); });
    auto colours = new QMenu(tr("&Colour"), window_);
    colours->setObjectName("colours");
    for (const Swatch& swatch : kSwatches) {
        const uint32_t colour = swatch.colour;
        QPixmap chip(12, 12);
        chip.fill(QColor(QRgb(colour)));
        colours->addAction(QIcon(chip), tr(swatch.name), this, [this, colour] { Recolour(colour); });
    }
    colours->addAction(tr("&Other..."), this, [this] {
        QColor colour = tools_->Selected() ? QColor(QRgb(tools_->Selected()->color)) : QColor(Qt::yellow);
        if (colourPrompt(colour)) Recolour(colour.rgb() & 0xFFFFFF);
    });
    pickActions_.push_back(colours->menuAction());
    pickActions_.push_back(make("edit-text", tr("Edit &text..."), QKeySequence(), [this] { EditText(); }));
    QAction* remove = make("delete", tr("&Delete annotation"), QKeySequence(QKeySequence::Delete), [this] {
        if (tools_->Selected()) Delete(tools_->SelectedPage(), *tools_->Selected());
    });
    // Delete acts while the page view has the keyboard, not in the page box or the strip.
    remove->setShortcutContext(Qt::WidgetShortcut);
    view_.addAction(remove);
    pickActions_.push_back(remove);

    QList<QAction*> context;
    for (QAction* action : markupActions_) context.push_back(action);
    auto separator = new QAction(this);
    separator->setSeparator(true);
    context.push_back(separator);
    for (QAction* action : pickActions_) context.push_back(action);
    tools_->SetContextActions(context);

    connect(tools_, &AnnotationTools::CreateRequested, this, &AnnotationCommands::Create);
    connect(tools_, &AnnotationTools::ChangeRequested, this,
            [this](int page, const Annotation& before, const AnnotationChange& change) {
                Change(page, before, change, change.rect ? tr("Move annotation") : tr("Change annotation"));
            });
    connect(tools_, &AnnotationTools::DeleteRequested, this, &AnnotationCommands::Delete);
    connect(tools_, &AnnotationTools::SelectedChanged, this, &AnnotationCommands::UpdateActions);
    connect(&view_, &QuirelleView::SelectionChanged, this, &AnnotationCommands::UpdateActions);
    connect(panel_, &AnnotationsPanel::AnnotationActivated, this, [this](int page, qint64 id, const Rect& rect) {
        view_.JumpToPage(page, rect.top + 20);
        view_.setFocus();
        if (refusal_.isEmpty()) tools_->Select(page, id);
    });
    UpdateActions();
}

AnnotationCommands::~AnnotationCommands() = default;

QAction* AnnotationCommands::Action(const QString& name) const {
    return findChild<QAction*>(name);
}

void AnnotationCommands::AddMenu(QMenuBar& bar) {
    QMenu* menu = bar.addMenu(tr("&Annotate"));
    menu->setToolTipsVisible(true);
    for (QAction* action : markupActions_) menu->addAction(action);
    menu->addSeparator();
    for (QAction* action : toolActions_) menu->addAction(action);
    menu->addSeparator();
    for (QAction* action : pickActions_) menu->addAction(action);
}

void AnnotationCommands::SetDocument(int64_t id) {
    doc_ = id;
    refusal_.clear();
    try {
        if (id >= 0 && service_.IsAnnotateProtected(id))
            refusal_ = tr("The document's permissions do not allow adding or changing annotations");
    } catch (const std::invalid_argument&) {
        refusal_ = tr("No document");
    }
    tools_->ClearSelected();
    tools_->SetEnabled(id >= 0 && refusal_.isEmpty());
    tools_->Refresh();
    panel_->SetDocument(id, view_.PageCount());
    UpdateActions();
    if (!refusal_.isEmpty() && id >= 0) emit Message(refusal_);
}

void AnnotationCommands::Changed(int page) {
    tools_->Refresh();
    if (page >= 0) return panel_->ReloadPage(page);
    panel_->Reload(view_.PageCount());
}

void AnnotationCommands::UpdateActions() {
    const bool allowed = doc_ >= 0 && refusal_.isEmpty();
    const QString why = doc_ < 0 ? QString() : refusal_;
    auto set = [&](QAction* action, bool enabled) {
        action->setEnabled(allowed && enabled);
        action->setToolTip(why.isEmpty() ? action->text().remove('&') : why);
        action->setStatusTip(why);
    };
    for (QAction* action : markupActions_) set(action, view_.SelectionPage() >= 0);
    for (QAction* action : toolActions_) set(action, true);
    for (QAction* action : pickActions_) set(action, tools_->Selected().has_value());
}

AnnotationCommands::Slot AnnotationCommands::SlotOf(int64_t id) {
    slots_.erase(std::remove_if(slots_.begin(), slots_.end(), [](const auto& s) { return s.expired(); }), slots_.end());
    for (const auto& weak : slots_) {
        if (Slot slot = weak.lock(); slot && *slot == id) return slot;
    }
    auto slot = std::make_shared<int64_t>(id);
    slots_.push_back(slot);
    return slot;
}

// Makes the annotation and puts its id in the slot before the step counts as done.
std::future<void> AnnotationCommands::Make(int64_t doc, int page, const NewAnnotation& annotation, const Slot& slot) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    WhenReady(this, service_.CreateAnnotation(doc, static_cast<unsigned>(page), annotation),
              [slot, done](std::future<int64_t>& made) {
                  try {
                      *slot = made.get();
                      done->set_value();
                  } catch (...) {
                      done->set_exception(std::current_exception());
                  }
              });
    return finished;
}

void AnnotationCommands::Create(int page, NewAnnotation annotation) {
    if (doc_ < 0 || !refusal_.isEmpty()) return;
    if (annotation.author.empty()) annotation.author = author_.toStdString();
    if (annotation.type == AnnotText && annotation.contents.empty()) {
        // A note is its text: none, no note.
        QString text;
        if (!textPrompt(text) || text.isEmpty()) return tools_->SetTool(AnnotationTools::Tool::Select);
        annotation.contents = text.toStdString();
    }
    const int64_t doc = doc_;
    auto slot = std::make_shared<int64_t>(0);
    slots_.push_back(slot);
    Edit edit;
    edit.name = tr("Add annotation");
    edit.page = page;
    edit.redo.push_back([this, doc, page, annotation, slot] { return Make(doc, page, annotation, slot); });
    edit.undo.push_back(
        [this, doc, page, slot] { return service_.DeleteAnnotation(doc, static_cast<unsigned>(page), *slot); });
    if (!commit || !commit(std::move(edit))) return;
    // The marked text shows its new colour rather than the selection's; ink goes on.
    if (!annotation.lines.empty()) view_.ClearSelection();
    if (annotation.type != AnnotInk) tools_->SetTool(AnnotationTools::Tool::Select);
}

void AnnotationCommands::Change(int page, const Annotation& before, const AnnotationChange& change,
                                const QString& name) {
    if (doc_ < 0 || !refusal_.isEmpty()) return;
    const int64_t doc = doc_;
    const Slot slot = SlotOf(before.id);
    const AnnotationChange back = Inverse(before, change);
    Edit edit;
    edit.name = name;
    edit.page = page;
    edit.redo.push_back([this, doc, page, slot, change] {
        return service_.ChangeAnnotation(doc, static_cast<unsigned>(page), *slot, change);
    });
    edit.undo.push_back([this, doc, page, slot, back] {
        return service_.ChangeAnnotation(doc, static_cast<unsigned>(page), *slot, back);
    });
    if (commit) commit(std::move(edit));
}

// The step that makes an annotation again; a reply note answers the
// annotation it answered under the id that one has by then (the service
// makes every reply a note, so another kind comes back on its own).
AnnotationCommands::Step AnnotationCommands::MakeAgain(int64_t doc, int page, const Annotation& annotation) {
    const Slot slot = SlotOf(annotation.id);
    const bool reply = annotation.inReplyTo != 0 && annotation.type == AnnotText;
    const Slot answered = reply ? SlotOf(annotation.inReplyTo) : nullptr;
    return [this, doc, page, again = Remake(annotation), slot, answered]() mutable {
        if (answered) again.inReplyTo = *answered;
        return Make(doc, page, again, slot);
    };
}

// The service deletes the replies with the annotation; undo makes them again.
void AnnotationCommands::Delete(int page, const Annotation& annotation) {
    if (doc_ < 0 || !refusal_.isEmpty() || !AnnotationTools::Editable(annotation.type)) return;
    const int64_t doc = doc_;
    const Slot slot = SlotOf(annotation.id);
    Edit edit;
    edit.name = tr("Delete annotation");
    edit.page = page;
    edit.redo.push_back(
        [this, doc, page, slot] { return service_.DeleteAnnotation(doc, static_cast<unsigned>(page), *slot); });
    edit.undo.push_back(MakeAgain(doc, page, annotation));
    for (const Annotation& reply : repliesTo(tools_->Listed(page), annotation.id))
        edit.undo.push_back(MakeAgain(doc, page, reply));
    if (commit && commit(std::move(edit))) tools_->ClearSelected();
}

void AnnotationCommands::Recolour(uint32_t colour) {
    if (!tools_->Selected()) return;
    AnnotationChange change;
    change.color = colour;
    Change(tools_->SelectedPage(), *tools_->Selected(), change, tr("Recolour annotation"));
}

void AnnotationCommands::EditText() {
    if (!tools_->Selected()) return;
    const Annotation before = *tools_->Selected();
    const int page = tools_->SelectedPage();
    QString text = QString::fromStdString(before.contents);
    if (!textPrompt(text) || text.toStdString() == before.contents) return;
    AnnotationChange change;
    change.contents = text.toStdString();
    Change(page, before, change, tr("Edit annotation text"));
}

}  // namespace Orvane::PDF
