#pragma once

// Marking up the document shown in the viewer: the Annotate menu, the page
// view's context menu, the annotation tools over the view and the
// annotations sidebar tab. Every change is handed to the window as an edit
// of service calls that make it and calls that take it back, so that it
// joins the window's one undo history.
//
// An annotation that undo or redo makes again gets a new id; every edit that
// names it holds one shared slot for its id, which the step that makes it
// again updates, so that later steps find it under its new id.
//
// A document whose permissions forbid annotating (unless opened with its
// owner password) gets no tool and no command: they are disabled and say why.

#include <QObject>
#include <QString>
#include <QuirelleWidgets>
#include <functional>
#include <future>
#include <memory>
#include <vector>

class QAction;
class QActionGroup;
class QColor;
class QMenu;
class QMenuBar;
class QWidget;

namespace Orvane::PDF {

class AnnotationCommands : public QObject {
    Q_OBJECT
public:
    using Step = std::function<std::future<void>()>;
    struct Edit {
        QString name;
        std::vector<Step> undo, redo;
        int page = -1;
    };

    AnnotationCommands(QuirelleView& view, IAnnotationProvider& service, QWidget* window);
    ~AnnotationCommands() override;

    // Adds the Annotate menu.
    void AddMenu(QMenuBar& bar);
    AnnotationTools& Tools() const { return *tools_; }
    // The sidebar tab; the window takes it.
    AnnotationsPanel& Panel() const { return *panel_; }
    // A document shown (-1: none): its permissions, its list.
    void SetDocument(int64_t id);
    // After any edit of the document: the lists again (of one page when the
    // edit changed only its annotations).
    void Changed(int page = -1);
    // Why the document may not be annotated; empty when it may.
    const QString& Refusal() const { return refusal_; }
    QAction* Action(const QString& name) const;  // by object name ("highlight", "delete", "tool-ink", ...)

    // Runs an edit and keeps it for undo; false when the window is busy.
    std::function<bool(Edit edit)> commit;
    // Ask for a colour and a text (the defaults show dialogs); false when cancelled.
    std::function<bool(QColor& colour)> colourPrompt;
    std::function<bool(QString& text)> textPrompt;

signals:
    void Message(const QString& text);

private:
    using Slot = std::shared_ptr<int64_t>;
    Slot SlotOf(int64_t id);
    void Create(int page, NewAnnotation annotation);
    void Change(int page, const Annotation& before, const AnnotationChange& change, const QString& name);
    void Delete(int page, const Annotation& annotation);
    void Recolour(uint32_t colour);
    void EditText();
    void UpdateActions();
    std::future<void> Make(int64_t doc, int page, const NewAnnotation& annotation, const Slot& slot);
    Step MakeAgain(int64_t doc, int page, const Annotation& annotation);

    QuirelleView& view_;
    IAnnotationProvider& service_;
    QWidget* window_;
    AnnotationTools* tools_;
    AnnotationsPanel* panel_;
    int64_t doc_ = -1;
    QString refusal_;
    QString author_;
    std::vector<std::weak_ptr<int64_t>> slots_;
    std::vector<QAction*> markupActions_, pickActions_, toolActions_;
    QActionGroup* toolGroup_ = nullptr;
};

}  // namespace Orvane::PDF
