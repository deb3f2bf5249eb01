// The tools watch the view's viewport through an event filter and draw the
// pick and the gesture under way on a transparent child of the viewport, so
// that the view itself knows nothing of them. The lists of annotations are
// kept per page, asked when a page's picture arrives and again after every
// change (a generation number drops answers to older asks).

#include "AnnotationTools.h"

#include <QAction>
#include <QApplication>
#include <QContextMenuEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWidget>
#include <algorithm>
#include <cmath>

#include "GuiThread.h"
#include "QuirelleView.h"

namespace Orvane::PDF {

namespace {
constexpr int kHandle = 4;         // half a handle's side, pixels
constexpr double kSmallest = 2.0;  // a shape smaller than this (points) is a slip of the mouse
const QColor kPick(0, 110, 230);
const QColor kDrawing(220, 30, 30);

bool Markup(int type) {
    return type == AnnotHighlight || type == AnnotUnderline || type == AnnotSquiggly || type == AnnotStrikeOut;
}

Rect Normalized(const QPointF& a, const QPointF& b) {
    return Rect{std::min(a.x(), b.x()), std::max(a.y(), b.y()), std::max(a.x(), b.x()), std::min(a.y(), b.y())};
}

bool Contains(const Rect& r, const QPointF& p) {
    return p.x() >= r.left && p.x() <= r.right && p.y() >= r.bottom && p.y() <= r.top;
}

// The rectangle's corners in page space: top left, top right, bottom right, bottom left.
QPointF Corner(const Rect& r, int index) {
    switch (index) {
        case 0:
            return {r.left, r.top};
        case 1:
            return {r.right, r.top};
        case 2:
            return {r.right, r.bottom};
        default:
            return {r.left, r.bottom};
    }
}
}  // namespace

class AnnotationTools::Overlay : public QWidget {
public:
    Overlay(AnnotationTools& tools, QWidget* parent) : QWidget(parent), tools_(tools) {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        setAttribute(Qt::WA_NoSystemBackground);
        setGeometry(parent->rect());
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        tools_.Paint(painter);
    }

private:
    AnnotationTools& tools_;
};

AnnotationTools::AnnotationTools(QuirelleView& view, IAnnotationProvider& annotations, QObject* parent)
    : QObject(parent), view_(view), annotations_(annotations), overlay_(new Overlay(*this, view.viewport())) {
    view_.viewport()->installEventFilter(this);
    connect(&view_, &QuirelleView::ImageArrived, this, &AnnotationTools::Ask);
    connect(&view_, &QuirelleView::CurrentPageChanged, this, &AnnotationTools::Ask);
}

AnnotationTools::~AnnotationTools() {
    view_.viewport()->removeEventFilter(this);
}

bool AnnotationTools::Editable(int type) {
    switch (type) {
        case AnnotText:
        case AnnotFreeText:
        case AnnotLine:
        case AnnotSquare:
        case AnnotCircle:
        case AnnotInk:
            return true;
        default:
            return Markup(type);
    }
}

void AnnotationTools::SetTool(Tool tool) {
    if (tool == tool_) return;
    tool_ = tool;
    drag_ = Drag::None;
    if (tool != Tool::Select) ClearSelected();
    if (tool == Tool::Select) {
        view_.viewport()->unsetCursor();
    } else {
        view_.viewport()->setCursor(Qt::CrossCursor);
    }
    overlay_->update();
    emit ToolChanged(tool);
}

void AnnotationTools::SetEnabled(bool enabled) {
    enabled_ = enabled;
    if (!enabled) {
        SetTool(Tool::Select);
        ClearSelected();
    }
}

const std::vector<Annotation>& AnnotationTools::Listed(int page) const {
    static const std::vector<Annotation> none;
    auto it = listed_.find(page);
    return it == listed_.end() ? none : it->second;
}

void AnnotationTools::Ask(int page) {
    const int64_t doc = view_.Document();
    if (page < 0 || doc < 0) return;
    if (doc != doc_) {  // another document: nothing listed of it yet
        listed_.clear();
        asked_.clear();
        ++generation_;
        doc_ = doc;
    }
    auto asked = asked_.find(page);
    if (asked != asked_.end() && asked->second == generation_) return;
    asked_[page] = generation_;
    const uint64_t generation = generation_;
    WhenReady(this, annotations_.GetAnnotations(doc, static_cast<unsigned>(page)),
              [this, page, doc, generation](std::future<std::vector<Annotation>>& answer) {
                  if (generation != generation_ || doc != view_.Document()) return;
                  try {
                      listed_[page] = answer.get();
                  } catch (const std::exception&) {
                      listed_.erase(page);  // the page went away meanwhile
                  }
                  const std::vector<Annotation>& now = Listed(page);
                  auto find = [&](int64_t id) {
                      return std::find_if(now.begin(), now.end(), [id](const Annotation& a) { return a.id == id; });
                  };
                  if (toSelect_ && toSelect_->first == page) {
                      auto it = find(toSelect_->second);
                      toSelect_.reset();
                      if (it != now.end()) {
                          selected_ = *it;
                          selectedPage_ = page;
                          emit SelectedChanged();
                      }
                  } else if (selected_ && selectedPage_ == page) {
                      auto it = find(selected_->id);
                      if (it == now.end()) {
                          ClearSelected();
                      } else {
                          selected_ = *it;
                          emit SelectedChanged();
                      }
                  }
                  overlay_->update();
              });
}

void AnnotationTools::Refresh() {
    ++generation_;
    asked_.clear();
    if (selected_) toSelect_ = std::make_pair(selectedPage_, selected_->id);
    // The pages in view are asked again as their pictures come back; the
    // current page and the pick's at once.
    const int current = view_.CurrentPage();
    if (doc_ != view_.Document()) listed_.clear();
    doc_ = view_.Document();
    for (auto it = listed_.begin(); it != listed_.end();)
        it = it->first == current || it->first == selectedPage_ ? std::next(it) : listed_.erase(it);
    Ask(current);
    if (selectedPage_ != current) Ask(selectedPage_);
}

void AnnotationTools::Select(int page, int64_t id) {
    const std::vector<Annotation>& list = Listed(page);
    auto it = std::find_if(list.begin(), list.end(), [id](const Annotation& a) { return a.id == id; });
    if (it == list.end()) {
        toSelect_ = std::make_pair(page, id);
        asked_.erase(page);
        Ask(page);
        return;
    }
    selected_ = *it;
    selectedPage_ = page;
    overlay_->update();
    emit SelectedChanged();
}

void AnnotationTools::ClearSelected() {
    toSelect_.reset();
    if (!selected_) return;
    selected_.reset();
    selectedPage_ = -1;
    overlay_->update();
    emit SelectedChanged();
}

bool AnnotationTools::MarkSelection(int type) {
    const int page = view_.SelectionPage();
    if (!enabled_ || page < 0 || view_.Selection().rects.empty()) return false;
    NewAnnotation markup;
    markup.type = type;
    markup.lines = view_.Selection().rects;
    emit CreateRequested(page, markup);
    return true;
}

// The topmost annotation at the point; a reply (its icon lies on the one it
// answers) only where no other is.
std::optional<Annotation> AnnotationTools::HitTest(int page, const QPointF& point) const {
    const std::vector<Annotation>& list = Listed(page);
    const Annotation* reply = nullptr;
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        if (!Editable(it->type) || it->hidden || !Contains(it->rect, point)) continue;
        if (it->inReplyTo == 0) return *it;
        if (reply == nullptr) reply = &*it;
    }
    if (reply != nullptr) return *reply;
    return std::nullopt;
}

QRectF AnnotationTools::ShownRect(int page, const Rect& rect) const {
    return QRectF(view_.MapFromPage(page, {rect.left, rect.top}), view_.MapFromPage(page, {rect.right, rect.bottom}))
        .normalized();
}

int AnnotationTools::HandleAt(const QPoint& viewportPoint) const {
    if (!selected_ || Markup(selected_->type) || selected_->locked) return -1;
    for (int corner = 0; corner < 4; ++corner) {
        const QPointF at = view_.MapFromPage(selectedPage_, Corner(selected_->rect, corner));
        if (std::abs(at.x() - viewportPoint.x()) <= kHandle + 2 && std::abs(at.y() - viewportPoint.y()) <= kHandle + 2)
            return corner;
    }
    return -1;
}

Rect AnnotationTools::DraggedRect() const {
    const Rect& r = selected_->rect;
    if (drag_ == Drag::Resize) return Normalized(Corner(r, (handle_ + 2) % 4), lastPagePoint_);
    const QPointF by = lastPagePoint_ - pressPagePoint_;
    return Rect{r.left + by.x(), r.top + by.y(), r.right + by.x(), r.bottom + by.y()};
}

bool AnnotationTools::eventFilter(QObject* watched, QEvent* event) {
    if (watched != view_.viewport()) return false;
    switch (event->type()) {
        case QEvent::Resize:
            overlay_->setGeometry(view_.viewport()->rect());
            return false;
        case QEvent::MouseButtonPress:
            return Press(static_cast<QMouseEvent*>(event));
        case QEvent::MouseMove:
            return Move(static_cast<QMouseEvent*>(event));
        case QEvent::MouseButtonRelease:
            return Release(static_cast<QMouseEvent*>(event));
        case QEvent::MouseButtonDblClick:
            return tool_ != Tool::Select || drag_ != Drag::None;
        case QEvent::ContextMenu: {
            auto* menu = static_cast<QContextMenuEvent*>(event);
            if (enabled_ && tool_ == Tool::Select) {
                if (const auto hit = view_.PageAt(menu->pos())) {
                    if (const auto picked = HitTest(hit->first, hit->second)) Select(hit->first, picked->id);
                }
            }
            if (contextActions_.isEmpty()) return false;
            QMenu popup;
            popup.addActions(contextActions_);
            popup.exec(menu->globalPos());
            return true;
        }
        default:
            return false;
    }
}

bool AnnotationTools::Press(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !enabled_) return false;
    const auto hit = view_.PageAt(event->pos());
    if (tool_ == Tool::Select) {
        handle_ = HandleAt(event->pos());
        std::optional<Annotation> picked;
        if (handle_ < 0 && hit) picked = HitTest(hit->first, hit->second);
        if (handle_ < 0 && !picked) {
            ClearSelected();
            return false;
        }
        if (picked && (!selected_ || selected_->id != picked->id || selectedPage_ != hit->first)) {
            selected_ = picked;
            selectedPage_ = hit->first;
            overlay_->update();
            emit SelectedChanged();
        }
        // Text markup stays with its text: the press goes on to select text.
        if (handle_ < 0 && (Markup(selected_->type) || selected_->locked)) return false;
        drag_ = handle_ >= 0 ? Drag::Resize : Drag::Move;
        dragPage_ = selectedPage_;
    } else {
        if (!hit) return true;
        drag_ = Drag::Draw;
        dragPage_ = hit->first;
        stroke_ = {hit->second};
    }
    pressViewportPoint_ = event->pos();
    pressPagePoint_ = lastPagePoint_ =
        drag_ == Drag::Draw ? hit->second : view_.PageAt(event->pos()).value_or(std::make_pair(0, QPointF())).second;
    if (drag_ == Drag::Resize) pressPagePoint_ = lastPagePoint_ = Corner(selected_->rect, handle_);
    return true;
}

bool AnnotationTools::Move(QMouseEvent* event) {
    if (drag_ == Drag::None) return tool_ != Tool::Select;  // no link cursor while drawing
    // Kept on the page where the gesture began.
    const QRect page = view_.PageRect(dragPage_);
    const QPoint inside(std::clamp(event->pos().x(), page.left(), page.right()),
                        std::clamp(event->pos().y(), page.top(), page.bottom()));
    const auto hit = view_.PageAt(inside);
    if (!hit || hit->first != dragPage_) return true;
    lastPagePoint_ = hit->second;
    if (drag_ == Drag::Draw && tool_ == Tool::Ink) stroke_.push_back(lastPagePoint_);
    overlay_->update();
    return true;
}

bool AnnotationTools::Release(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || drag_ == Drag::None) return drag_ != Drag::None;
    const Drag drag = std::exchange(drag_, Drag::None);
    overlay_->update();
    const bool moved = (event->pos() - pressViewportPoint_).manhattanLength() >= QApplication::startDragDistance();
    if (drag == Drag::Move || drag == Drag::Resize) {
        if (moved && selected_) {
            drag_ = drag;  // DraggedRect reads it
            AnnotationChange change;
            change.rect = DraggedRect();
            drag_ = Drag::None;
            emit ChangeRequested(selectedPage_, *selected_, change);
        }
        return true;
    }
    NewAnnotation made;
    const Rect box = Normalized(pressPagePoint_, lastPagePoint_);
    const bool big = box.right - box.left >= kSmallest || box.top - box.bottom >= kSmallest;
    switch (tool_) {
        case Tool::Note:
            made.type = AnnotText;
            made.at = {pressPagePoint_.x(), pressPagePoint_.y()};
            break;
        case Tool::Ink: {
            if (stroke_.size() < 2) return true;
            made.type = AnnotInk;
            std::vector<Position> points;
            for (const QPointF& p : stroke_) points.push_back({p.x(), p.y()});
            made.strokes.push_back(std::move(points));
            break;
        }
        case Tool::Square:
        case Tool::Circle:
            if (!big) return true;
            made.type = tool_ == Tool::Square ? AnnotSquare : AnnotCircle;
            made.rect = box;
            break;
        case Tool::Line:
        case Tool::Arrow:
            if (!big) return true;
            made.type = AnnotLine;
            made.from = {pressPagePoint_.x(), pressPagePoint_.y()};
            made.to = {lastPagePoint_.x(), lastPagePoint_.y()};
            made.arrow = tool_ == Tool::Arrow;
            break;
        case Tool::Select:
            return true;
    }
    stroke_.clear();
    emit CreateRequested(dragPage_, made);
    return true;
}

void AnnotationTools::Paint(QPainter& painter) const {
    if (selected_ && selectedPage_ >= 0) {
        const bool dragging = drag_ == Drag::Move || drag_ == Drag::Resize;
        const Rect rect = dragging ? DraggedRect() : selected_->rect;
        painter.setPen(QPen(kPick, 1, Qt::DashLine));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(ShownRect(selectedPage_, rect).adjusted(-2, -2, 2, 2));
        if (!Markup(selected_->type) && !selected_->locked) {
            painter.setPen(QPen(kPick, 1));
            painter.setBrush(Qt::white);
            for (int corner = 0; corner < 4; ++corner) {
                const QPointF at = view_.MapFromPage(selectedPage_, Corner(rect, corner));
                painter.drawRect(QRectF(at - QPointF(kHandle, kHandle), QSizeF(2 * kHandle, 2 * kHandle)));
            }
        }
    }
    if (drag_ != Drag::Draw) return;
    painter.setPen(QPen(kDrawing, 2));
    painter.setBrush(Qt::NoBrush);
    const QPointF a = view_.MapFromPage(dragPage_, pressPagePoint_), b = view_.MapFromPage(dragPage_, lastPagePoint_);
    switch (tool_) {
        case Tool::Ink: {
            QPainterPath path;
            for (int i = 0; i < stroke_.size(); ++i) {
                const QPointF at = view_.MapFromPage(dragPage_, stroke_[i]);
                i == 0 ? path.moveTo(at) : path.lineTo(at);
            }
            painter.drawPath(path);
            break;
        }
        case Tool::Square:
            painter.drawRect(QRectF(a, b).normalized());
            break;
        case Tool::Circle:
            painter.drawEllipse(QRectF(a, b).normalized());
            break;
        case Tool::Line:
        case Tool::Arrow:
            painter.drawLine(a, b);
            break;
        default:
            break;
    }
}

}  // namespace Orvane::PDF
