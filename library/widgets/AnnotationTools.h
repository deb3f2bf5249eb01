#pragma once

// Marking up pages in a QuirelleView with the mouse.
//
//   auto tools = new Orvane::PDF::AnnotationTools(*view, annotations);
//   connect(tools, &AnnotationTools::CreateRequested, ...);  // the application makes it
//
// The tools watch the view's pages; they never change the document
// themselves. Each gesture ends in a request (create, change, delete) that
// the application carries out (and may undo), then calls Refresh(). With the
// Select tool a click picks the topmost annotation under the pointer that
// can be edited; a drag moves it, a drag on one of its corner handles resizes
// it (text markup stays with its text: it is picked, never moved). The Note
// tool places a note where clicked, Ink draws one stroke per drag, Square,
// Circle, Line and Arrow are drawn by dragging. Points and rectangles are in
// page space. While disabled (a document that forbids annotating) no tool
// acts and nothing is picked. GUI thread only.

#include <QList>
#include <QObject>
#include <QPointF>
#include <QString>
#include <QVector>
#include <Quirelle>
#include <map>
#include <optional>
#include <vector>

#include "WidgetsExport.h"

class QAction;
class QMouseEvent;
class QPainter;
class QWidget;

namespace Orvane::PDF {

class QuirelleView;

class QUIRELLE_WIDGETS_EXPORT AnnotationTools : public QObject {
    Q_OBJECT
public:
    enum class Tool { Select, Note, Ink, Square, Circle, Line, Arrow };

    AnnotationTools(QuirelleView& view, IAnnotationProvider& annotations, QObject* parent = nullptr);
    ~AnnotationTools() override;

    Tool CurrentTool() const { return tool_; }
    void SetTool(Tool tool);
    bool Enabled() const { return enabled_; }
    void SetEnabled(bool enabled);

    // The picked annotation (none: nullopt) and its page.
    const std::optional<Annotation>& Selected() const { return selected_; }
    int SelectedPage() const { return selectedPage_; }
    void Select(int page, int64_t id);  // once the page's list has it
    void ClearSelected();

    // A markup (highlight, underline, strike-out, squiggly) over the view's
    // text selection: CreateRequested, or false without a selection.
    bool MarkSelection(int type);
    // The annotations of a page as last listed (empty until answered).
    const std::vector<Annotation>& Listed(int page) const;
    // The lists again after a change; the pick follows its annotation by id.
    void Refresh();
    // Shown by the page view's context menu (nothing without actions).
    void SetContextActions(const QList<QAction*>& actions) { contextActions_ = actions; }

    // Whether the tools can pick or recreate an annotation of this type.
    static bool Editable(int type);

signals:
    void CreateRequested(int page, const Orvane::PDF::NewAnnotation& annotation);
    void ChangeRequested(int page, const Orvane::PDF::Annotation& before, const Orvane::PDF::AnnotationChange& change);
    void DeleteRequested(int page, const Orvane::PDF::Annotation& annotation);
    void SelectedChanged();
    void ToolChanged(Orvane::PDF::AnnotationTools::Tool tool);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    class Overlay;
    enum class Drag { None, Draw, Move, Resize };

    void Ask(int page);
    std::optional<Annotation> HitTest(int page, const QPointF& point) const;
    int HandleAt(const QPoint& viewportPoint) const;     // 0..3, -1 for none
    QRectF ShownRect(int page, const Rect& rect) const;  // viewport coordinates
    Rect DraggedRect() const;                            // the pick as the drag leaves it
    bool Press(QMouseEvent* event);
    bool Move(QMouseEvent* event);
    bool Release(QMouseEvent* event);
    void Paint(QPainter& painter) const;

    QuirelleView& view_;
    IAnnotationProvider& annotations_;
    Overlay* overlay_;
    Tool tool_ = Tool::Select;
    bool enabled_ = true;
    int64_t doc_ = -1;  // whose lists listed_ holds
    std::map<int, std::vector<Annotation>> listed_;
    std::map<int, uint64_t> asked_;  // page: generation of the list asked for it
    uint64_t generation_ = 0;
    std::optional<Annotation> selected_;
    int selectedPage_ = -1;
    std::optional<std::pair<int, int64_t>> toSelect_;  // picked once listed
    // The gesture under way: its page, where it began and the points since.
    Drag drag_ = Drag::None;
    int dragPage_ = -1;
    int handle_ = -1;
    QPointF pressPagePoint_, lastPagePoint_;
    QPoint pressViewportPoint_;
    QVector<QPointF> stroke_;  // page space
    QList<QAction*> contextActions_;
};

}  // namespace Orvane::PDF
