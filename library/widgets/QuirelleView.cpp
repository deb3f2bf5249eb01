// Layout: pages stacked top to bottom with a gap, centred horizontally, each
// as large as its displayed size in points times the pixels per point. The
// scroll bars move over that content; the view paints only what is visible,
// and asks the page source for the visible pages and one screen below them.

#include "QuirelleView.h"

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QGestureEvent>
#include <QKeyEvent>
#include <QNativeGestureEvent>
#include <QPainter>
#include <QPinchGesture>
#include <QScrollBar>
#include <QWheelEvent>
#include <algorithm>
#include <array>
#include <climits>
#include <cmath>

#include "FormEditing.h"
#include "GuiThread.h"
#include "PageSource.h"
#include "TileCache.h"

namespace Orvane::PDF {

namespace {

constexpr int kGap = 10;  // between pages and around them
constexpr double kMinZoom = 0.1;
constexpr double kMaxZoom = 64.0;
constexpr std::array<double, 19> kZoomSteps{0.25, 0.33, 0.5, 0.67, 0.75, 1.0,  1.25, 1.5,  2.0, 3.0,
                                            4.0,  6.0,  8.0, 12.0, 16.0, 24.0, 32.0, 48.0, 64.0};
constexpr size_t kHistoryDepth = 100;
const QColor kBackground(0x5a, 0x5a, 0x5a);
const QColor kDarkBackground(0x20, 0x20, 0x20);
const QColor kHighlight(255, 210, 0, 110);
const QColor kCurrentHighlight(255, 120, 0, 150);
const QColor kSelection(0, 110, 230, 90);
// Above this many pixels a page's whole picture is asked at this size and
// drawn scaled, and tiles at the zoom shown are drawn over it.
constexpr qint64 kTilePixels = 4'000'000;
constexpr qint64 kTileBudgetBytes = 128LL << 20;

// Page space (points, y up, crop box rect, turned by rotation) to the page as
// displayed (points from its top-left corner, y down), and back.
QPointF ToDisplayed(const PageSource::Page& page, const QPointF& point) {
    const double w0 = page.rect.right - page.rect.left, h0 = page.rect.top - page.rect.bottom;
    const double u = point.x() - page.rect.left, v = page.rect.top - point.y();
    switch (page.rotation) {
        case IPage::Rotate90:
            return {h0 - v, u};
        case IPage::Rotate180:
            return {w0 - u, h0 - v};
        case IPage::Rotate270:
            return {v, w0 - u};
        default:
            return {u, v};
    }
}

QPointF FromDisplayed(const PageSource::Page& page, const QPointF& shown) {
    const double w0 = page.rect.right - page.rect.left, h0 = page.rect.top - page.rect.bottom;
    double u = shown.x(), v = shown.y();
    switch (page.rotation) {
        case IPage::Rotate90:
            u = shown.y(), v = h0 - shown.x();
            break;
        case IPage::Rotate180:
            u = w0 - shown.x(), v = h0 - shown.y();
            break;
        case IPage::Rotate270:
            u = w0 - shown.y(), v = shown.x();
            break;
        default:
            break;
    }
    return {u + page.rect.left, page.rect.top - v};
}

// Lightness inverted with hue and saturation kept: in HSL terms L' = 1 - L,
// which for each channel c with the pixel's largest M and smallest m is
// c' = c + 255 - M - m. White paper turns black, black text white, a red
// stays red.
QImage Darkened(const QImage& image) {
    QImage out = image.convertToFormat(QImage::Format_RGB32);
    for (int y = 0; y < out.height(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(out.scanLine(y));
        for (int x = 0; x < out.width(); ++x) {
            const int r = qRed(line[x]), g = qGreen(line[x]), b = qBlue(line[x]);
            const int shift = 255 - std::max({r, g, b}) - std::min({r, g, b});
            line[x] = qRgb(r + shift, g + shift, b + shift);
        }
    }
    return out;
}

}  // namespace

QuirelleView::QuirelleView(IPDFProvider& service, QWidget* parent)
    : QAbstractScrollArea(parent),
      source_(new PageSource(service, IPageInfoObserver::DefaultView, this)),
      reader_(dynamic_cast<IReadingProvider*>(&service)) {
    if (reader_ != nullptr) {
        tiles_ = new TileCache(service, *reader_, kTileBudgetBytes, this);
        connect(tiles_, &TileCache::TileArrived, this, [this](int page) {
            viewport()->update(PageRect(page));
            emit TileArrived(page);
        });
    }
    if (auto* forms = dynamic_cast<IFormProvider*>(&service)) forms_ = new FormEditing(*this, *forms);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);  // a fitted zoom must not change the viewport's width
    setFocusPolicy(Qt::StrongFocus);
    viewport()->setMouseTracking(true);
    viewport()->grabGesture(Qt::PinchGesture);
    connect(source_, &PageSource::LayoutChanged, this, [this] { Relayout(true); });
    connect(source_, &PageSource::ImageArrived, this, [this](int page) {
        viewport()->update(PageRect(page));
        emit ImageArrived(page);
    });
}

QuirelleView::~QuirelleView() = default;

void QuirelleView::SetDocument(int64_t id) {
    highlights_.clear();
    ClearSelection();
    if (tiles_ != nullptr) tiles_->Reset(id);
    darkPictures_.clear();
    back_.clear();
    forward_.clear();
    emit HistoryChanged();
    currentPage_ = -1;
    source_->SetDocument(id);
    verticalScrollBar()->setValue(0);
    Relayout(false);
    if (forms_ != nullptr) forms_->Load();
}

int64_t QuirelleView::Document() const {
    return source_->Document();
}
int QuirelleView::PageCount() const {
    return source_->Count();
}
QImage QuirelleView::PageImage(int page) const {
    return page >= 0 && page < PageCount() ? source_->At(page).image : QImage();
}

void QuirelleView::Reload() {
    highlights_.clear();
    ClearSelection();
    if (tiles_ != nullptr) tiles_->Reset(Document());
    darkPictures_.clear();
    source_->Reload();
    // The new page count at once (sizes follow), so that GoToPage can land
    // on a page the edit added.
    Relayout(true);
    if (forms_ != nullptr) forms_->Load();
}

void QuirelleView::Redraw() {
    source_->Redraw();
    if (tiles_ != nullptr) tiles_->Reset(Document());
    UpdateRequests();
    viewport()->update();
}

QSizeF QuirelleView::PageSize(int page) const {
    return page >= 0 && page < PageCount() ? source_->At(page).size : QSizeF();
}

double QuirelleView::PixelsPerPoint() const {
    return logicalDpiY() / 72.0 * zoom_;
}

QSizeF QuirelleView::DisplaySize(int page) const {
    return source_->At(page).size * PixelsPerPoint();
}

void QuirelleView::Relayout(bool keepPosition) {
    // Remember what is at the top of the view, as a page and a fraction of it.
    int anchorPage = -1;
    double anchorFraction = 0.0;
    if (keepPosition && !tops_.empty()) {
        const int y = verticalScrollBar()->value();
        anchorPage = std::min(PageAtY(y), static_cast<int>(tops_.size()) - 1);
        const double height = std::max(1.0, DisplaySize(std::min(anchorPage, PageCount() - 1)).height());
        anchorFraction = (y - tops_[anchorPage]) / height;
    }
    if (mode_ != ZoomMode::Custom && PageCount() > 0) {
        // Fit width: the widest page, so that no page needs a horizontal
        // scroll bar. Fit page: all of the current page.
        const double unit = logicalDpiY() / 72.0;
        double fit = 0.0;
        if (mode_ == ZoomMode::FitWidth) {
            double widest = 1.0;
            for (int page = 0; page < PageCount(); ++page) widest = std::max(widest, source_->At(page).size.width());
            fit = (viewport()->width() - 2 * kGap) / (widest * unit);
        } else {
            const QSizeF points = source_->At(std::clamp(currentPage_, 0, PageCount() - 1)).size;
            fit = std::min((viewport()->width() - 2 * kGap) / (points.width() * unit),
                           (viewport()->height() - 2 * kGap) / (points.height() * unit));
        }
        fit = std::clamp(fit, kMinZoom, kMaxZoom);
        if (std::abs(fit - zoom_) > 1e-6) {
            zoom_ = fit;
            emit ZoomChanged(zoom_);
        }
    }
    tops_.assign(static_cast<size_t>(PageCount()), 0);
    int y = kGap, width = 0;
    for (int page = 0; page < PageCount(); ++page) {
        tops_[static_cast<size_t>(page)] = y;
        const QSizeF size = DisplaySize(page);
        y += static_cast<int>(std::lround(size.height())) + kGap;
        width = std::max(width, static_cast<int>(std::lround(size.width())));
    }
    contentHeight_ = y;
    contentWidth_ = width + 2 * kGap;
    verticalScrollBar()->setRange(0, std::max(0, contentHeight_ - viewport()->height()));
    verticalScrollBar()->setPageStep(viewport()->height());
    verticalScrollBar()->setSingleStep(20);
    horizontalScrollBar()->setRange(0, std::max(0, contentWidth_ - viewport()->width()));
    horizontalScrollBar()->setPageStep(viewport()->width());
    horizontalScrollBar()->setSingleStep(20);
    if (anchorPage >= 0 && anchorPage < PageCount()) {
        verticalScrollBar()->setValue(tops_[static_cast<size_t>(anchorPage)] +
                                      static_cast<int>(anchorFraction * DisplaySize(anchorPage).height()));
    }
    UpdateRequests();
    UpdateCurrentPage();
    viewport()->update();
    if (forms_ != nullptr) forms_->Place();
}

int QuirelleView::PageAtY(int y) const {
    // The last page whose top is at or above y.
    auto it = std::upper_bound(tops_.begin(), tops_.end(), y);
    return it == tops_.begin() ? 0 : static_cast<int>(it - tops_.begin()) - 1;
}

QRect QuirelleView::PageRect(int page) const {
    if (page < 0 || page >= static_cast<int>(tops_.size())) return {};
    const QSizeF size = DisplaySize(page);
    const int width = static_cast<int>(std::lround(size.width()));
    const int x = std::max(kGap, (std::max(contentWidth_, viewport()->width()) - width) / 2);
    return QRect(x - horizontalScrollBar()->value(), tops_[static_cast<size_t>(page)] - verticalScrollBar()->value(),
                 width, static_cast<int>(std::lround(size.height())));
}

void QuirelleView::UpdateRequests() {
    if (PageCount() == 0) return source_->Want({}, 0, -1);
    const int top = verticalScrollBar()->value(), screen = viewport()->height();
    std::map<int, QSize> wanted;
    // The visible pages and one screen ahead.
    for (int page = PageAtY(top); page < PageCount() && tops_[static_cast<size_t>(page)] < top + 2 * screen; ++page) {
        QSize size = WholePixels(page);
        const qint64 pixels = qint64(size.width()) * size.height();
        // A tiled page's picture is only what shows until its tiles come.
        if (Tiled(page)) size = (QSizeF(size) * std::sqrt(double(kTilePixels) / double(pixels))).toSize();
        wanted[page] = size;
    }
    source_->Want(wanted, PageAtY(std::max(0, top - screen)), PageAtY(top + 3 * screen));
    UpdateTiles();
}

QSize QuirelleView::WholePixels(int page) const {
    const QSizeF size = DisplaySize(page) * devicePixelRatioF();
    return QSize(static_cast<int>(std::lround(size.width())), static_cast<int>(std::lround(size.height())));
}

bool QuirelleView::Tiled(int page) const {
    if (tiles_ == nullptr || page < 0 || page >= PageCount()) return false;
    const PageSource::Page& info = source_->At(page);
    const QSize whole = WholePixels(page);
    return info.known && !info.failed && qint64(whole.width()) * whole.height() > kTilePixels;
}

double QuirelleView::TileScale() const {
    return PixelsPerPoint() * devicePixelRatioF();
}

QRect QuirelleView::CellPixels(int page, const QPoint& cell) const {
    const int size = TileCache::kTileSize;
    return QRect(cell.x() * size, cell.y() * size, size, size).intersected(QRect(QPoint(0, 0), WholePixels(page)));
}

// The page-space rectangle whose pixels in the whole picture are exactly
// pixels: a hair inside them, so that rounding takes no neighbour.
Rect QuirelleView::CellRegion(int page, const QRect& pixels) const {
    const PageSource::Page& info = source_->At(page);
    const QSize whole = WholePixels(page);
    const double sx = info.size.width() / whole.width(), sy = info.size.height() / whole.height();
    constexpr double kInset = 0.02;
    const QPointF a = FromDisplayed(info, {(pixels.left() + kInset) * sx, (pixels.top() + kInset) * sy});
    const QPointF b = FromDisplayed(info, {(pixels.left() + pixels.width() - kInset) * sx,
                                           (pixels.top() + pixels.height() - kInset) * sy});
    return Rect{std::min(a.x(), b.x()), std::max(a.y(), b.y()), std::max(a.x(), b.x()), std::min(a.y(), b.y())};
}

// The cells of the visible parts of tiled pages are asked for; those within
// a screen of the view are kept, the rest forgotten.
void QuirelleView::UpdateTiles() {
    if (tiles_ == nullptr) return;
    const qreal ratio = devicePixelRatioF();
    const QRect visible = viewport()->rect();
    const QRect near = visible.adjusted(-visible.width(), -visible.height(), visible.width(), visible.height());
    const int size = TileCache::kTileSize;
    std::vector<TileCache::Wanted> wanted;
    std::map<int, QRect> keep;  // page: kept area in picture pixels
    auto pixelsOf = [&](int page, const QRect& area) {
        const QRect where = PageRect(page);
        const QRect shown = where.intersected(area);
        if (shown.isEmpty()) return QRect();
        const QRectF pixels(QPointF(shown.topLeft() - where.topLeft()) * ratio, QSizeF(shown.size()) * ratio);
        return pixels.toAlignedRect();
    };
    if (!tops_.empty()) {
        const int top = verticalScrollBar()->value();
        for (int page = PageAtY(std::max(0, top - visible.height())); page < PageCount(); ++page) {
            if (PageRect(page).top() > near.bottom()) break;
            if (!Tiled(page)) continue;
            keep[page] = pixelsOf(page, near);
            const QRect pixels = pixelsOf(page, visible);
            if (pixels.isEmpty()) continue;
            for (int row = pixels.top() / size; row <= pixels.bottom() / size; ++row) {
                for (int column = pixels.left() / size; column <= pixels.right() / size; ++column) {
                    const QPoint cell(column, row);
                    const QRect cellPixels = CellPixels(page, cell);
                    if (!cellPixels.isEmpty()) wanted.push_back({{page, cell}, CellRegion(page, cellPixels)});
                }
            }
        }
    }
    tiles_->Want(TileScale(), wanted, [&](const TileCache::Key& key) {
        auto it = keep.find(key.page);
        return it != keep.end() && it->second.intersects(CellPixels(key.page, key.cell));
    });
}

std::vector<std::pair<QRect, Rect>> QuirelleView::ShownTiles(int page) const {
    std::vector<std::pair<QRect, Rect>> shown;
    if (!Tiled(page)) return shown;
    const qreal ratio = devicePixelRatioF();
    const QRect where = PageRect(page);
    const QSize whole = WholePixels(page);
    const int size = TileCache::kTileSize;
    for (int row = 0; row * size < whole.height(); ++row) {
        for (int column = 0; column * size < whole.width(); ++column) {
            const QPoint cell(column, row);
            if (tiles_->Find({page, cell}).isNull()) continue;
            const QRect pixels = CellPixels(page, cell);
            const QRectF placed(QPointF(where.topLeft()) + QPointF(pixels.topLeft()) / ratio,
                                QSizeF(pixels.size()) / ratio);
            shown.emplace_back(placed.toAlignedRect(), CellRegion(page, pixels));
        }
    }
    return shown;
}

int QuirelleView::PendingTiles() const {
    return tiles_ == nullptr ? 0 : tiles_->Pending();
}

qint64 QuirelleView::PictureBytes() const {
    qint64 bytes = tiles_ == nullptr ? 0 : tiles_->Bytes();
    for (int page = 0; page < PageCount(); ++page) bytes += source_->At(page).image.sizeInBytes();
    for (const auto& dark : darkPictures_) bytes += dark.second.sizeInBytes();
    return bytes;
}

void QuirelleView::UpdateCurrentPage() {
    int best = -1, bestHeight = -1;
    const QRect visible = viewport()->rect();
    for (int page = PageAtY(verticalScrollBar()->value()); page < PageCount(); ++page) {
        const QRect shown = PageRect(page).intersected(visible);
        if (PageRect(page).top() > visible.bottom()) break;
        if (shown.height() > bestHeight) best = page, bestHeight = shown.height();
    }
    if (best != currentPage_) {
        currentPage_ = best;
        emit CurrentPageChanged(currentPage_);
    }
}

double QuirelleView::MaxZoom() const {
    // Content coordinates and scroll bars are ints: a long document gets less
    // than 6400 % rather than an overflow.
    double height = 0.0;
    for (int page = 0; page < PageCount(); ++page) height += source_->At(page).size.height();
    const double limit = (INT_MAX / 2.0) / std::max(1.0, height * logicalDpiY() / 72.0);
    return std::max(kMinZoom, std::min(kMaxZoom, limit));
}

void QuirelleView::ApplyZoom(double zoom, ZoomMode mode) {
    zoom = std::clamp(zoom, kMinZoom, MaxZoom());
    if (mode == mode_ && std::abs(zoom - zoom_) < 1e-6) return;
    const bool changed = std::abs(zoom - zoom_) >= 1e-6;
    mode_ = mode;
    zoom_ = zoom;
    Relayout(true);
    if (changed) emit ZoomChanged(zoom_);
}

void QuirelleView::SetZoom(double zoom) {
    ApplyZoom(zoom, ZoomMode::Custom);
}
void QuirelleView::SetZoomMode(ZoomMode mode) {
    ApplyZoom(zoom_, mode);
}

void QuirelleView::Step(bool in, std::optional<QPoint> anchor) {
    double zoom = 0.0;
    if (in) {
        auto next = std::upper_bound(kZoomSteps.begin(), kZoomSteps.end(), zoom_ + 1e-3);
        zoom = next == kZoomSteps.end() ? kZoomSteps.back() : *next;
    } else {
        auto next = std::lower_bound(kZoomSteps.begin(), kZoomSteps.end(), zoom_ - 1e-3);
        zoom = next == kZoomSteps.begin() ? kZoomSteps.front() : *std::prev(next);
    }
    ZoomAt(zoom, anchor.value_or(viewport()->rect().center()));
}

void QuirelleView::ZoomIn(std::optional<QPoint> anchor) {
    Step(true, anchor);
}
void QuirelleView::ZoomOut(std::optional<QPoint> anchor) {
    Step(false, anchor);
}

void QuirelleView::ZoomAt(double zoom, const QPoint& anchor) {
    QScrollBar* h = horizontalScrollBar();
    QScrollBar* v = verticalScrollBar();
    // The page point under the anchor, or else the anchor's share of the content.
    const auto hit = PageAt(anchor);
    const double fx = (anchor.x() + h->value()) / std::max(1.0, double(contentWidth_));
    const double fy = (anchor.y() + v->value()) / std::max(1.0, double(contentHeight_));
    ApplyZoom(zoom, ZoomMode::Custom);
    if (hit) {
        const QPointF now = MapFromPage(hit->first, hit->second);
        h->setValue(h->value() + static_cast<int>(std::lround(now.x() - anchor.x())));
        v->setValue(v->value() + static_cast<int>(std::lround(now.y() - anchor.y())));
    } else {
        h->setValue(static_cast<int>(std::lround(fx * contentWidth_)) - anchor.x());
        v->setValue(static_cast<int>(std::lround(fy * contentHeight_)) - anchor.y());
    }
}

QuirelleView::Position QuirelleView::CurrentPosition() const {
    if (tops_.empty()) return {};
    const int y = verticalScrollBar()->value();
    const int page = std::min(PageAtY(y), PageCount() - 1);
    const double height = std::max(1.0, DisplaySize(page).height());
    return {page, std::clamp((y - tops_[static_cast<size_t>(page)]) / height, -1.0, 1.0)};
}

void QuirelleView::SetPosition(const Position& position) {
    if (position.page < 0 || position.page >= PageCount()) return;
    verticalScrollBar()->setValue(tops_[static_cast<size_t>(position.page)] +
                                  static_cast<int>(position.fraction * DisplaySize(position.page).height()));
}

void QuirelleView::JumpToPage(int page, std::optional<double> pageY) {
    if (page < 0 || page >= PageCount()) return;
    back_.push_back(CurrentPosition());
    if (back_.size() > kHistoryDepth) back_.erase(back_.begin());
    forward_.clear();
    GoToPage(page, pageY);
    emit HistoryChanged();
}

void QuirelleView::GoBack() {
    if (back_.empty()) return;
    forward_.push_back(CurrentPosition());
    SetPosition(back_.back());
    back_.pop_back();
    emit HistoryChanged();
}

void QuirelleView::GoForward() {
    if (forward_.empty()) return;
    back_.push_back(CurrentPosition());
    SetPosition(forward_.back());
    forward_.pop_back();
    emit HistoryChanged();
}

void QuirelleView::SetDarkMode(bool dark) {
    if (dark == dark_) return;
    dark_ = dark;
    darkPictures_.clear();
    if (tiles_ != nullptr) {
        tiles_->SetRecolour(dark ? std::function<QImage(const QImage&)>(Darkened) : nullptr);
        tiles_->Reset(Document());
        UpdateTiles();
    }
    viewport()->update();
}

void QuirelleView::GoToPage(int page, std::optional<double> pageY) {
    if (page < 0 || page >= static_cast<int>(tops_.size())) return;
    int y = tops_[static_cast<size_t>(page)] - kGap;
    const PageSource::Page& info = source_->At(page);
    if (pageY && *pageY != 0.0 && info.known) {
        const QPointF shown = ToDisplayed(info, QPointF(info.rect.left, *pageY));
        y = tops_[static_cast<size_t>(page)] + static_cast<int>(shown.y() * PixelsPerPoint());
    }
    verticalScrollBar()->setValue(y);
}

void QuirelleView::SetHighlights(const QHash<int, QVector<Rect>>& rects, int currentPage,
                                 const QVector<Rect>& current) {
    highlights_ = rects;
    highlightPage_ = currentPage;
    currentHighlight_ = current;
    viewport()->update();
}

void QuirelleView::EnsureVisible(int page, const Rect& rect) {
    const QRectF shown =
        QRectF(MapFromPage(page, {rect.left, rect.top}), MapFromPage(page, {rect.right, rect.bottom})).normalized();
    if (shown.top() >= 0 && shown.bottom() <= viewport()->height()) return;
    verticalScrollBar()->setValue(verticalScrollBar()->value() + static_cast<int>(shown.top()) -
                                  viewport()->height() / 3);
}

QPointF QuirelleView::MapFromPage(int page, const QPointF& pagePoint) const {
    const QRect where = PageRect(page);
    if (where.isEmpty()) return {};
    const PageSource::Page& info = source_->At(page);
    const double scale = where.width() / std::max(1.0, info.size.width());
    return QPointF(where.topLeft()) + ToDisplayed(info, pagePoint) * scale;
}

std::optional<std::pair<int, QPointF>> QuirelleView::PageAt(const QPoint& viewportPoint) const {
    if (PageCount() == 0) return std::nullopt;
    const int page = PageAtY(viewportPoint.y() + verticalScrollBar()->value());
    const QRect where = PageRect(page);
    const PageSource::Page& info = source_->At(page);
    if (!where.contains(viewportPoint) || !info.known) return std::nullopt;
    const double scale = info.size.width() / std::max(1, where.width());
    return std::make_pair(page, FromDisplayed(info, QPointF(viewportPoint - where.topLeft()) * scale));
}

void QuirelleView::paintEvent(QPaintEvent*) {
    QPainter painter(viewport());
    painter.fillRect(viewport()->rect(), dark_ ? kDarkBackground : kBackground);
    const QRect visible = viewport()->rect();
    for (int page = PageAtY(verticalScrollBar()->value()); page < PageCount(); ++page) {
        const QRect where = PageRect(page);
        if (where.top() > visible.bottom()) break;
        painter.fillRect(where.translated(2, 2), QColor(0, 0, 0, 90));
        QImage image = source_->At(page).image;
        if (dark_ && !image.isNull()) {
            // Recoloured once per picture that arrives.
            auto cached = darkPictures_.find(page);
            if (cached == darkPictures_.end() || cached->first != image.cacheKey())
                cached = darkPictures_.insert(page, qMakePair(image.cacheKey(), Darkened(image)));
            image = cached->second;
        }
        if (image.isNull()) {
            painter.fillRect(where, dark_ ? Qt::black : Qt::white);
        } else {
            // An older picture of another size is scaled until the new one comes.
            painter.setRenderHint(QPainter::SmoothPixmapTransform, image.size() != where.size() * devicePixelRatioF());
            painter.drawImage(QRectF(where), image);
        }
        if (Tiled(page)) {
            // The sharp tiles over the scaled picture, where they have come.
            painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
            const qreal ratio = devicePixelRatioF();
            const QRect shown = where.intersected(visible);
            const QRectF pixels(QPointF(shown.topLeft() - where.topLeft()) * ratio, QSizeF(shown.size()) * ratio);
            const QRect cells = pixels.toAlignedRect();
            const int size = TileCache::kTileSize;
            for (int row = cells.top() / size; !cells.isEmpty() && row <= cells.bottom() / size; ++row) {
                for (int column = cells.left() / size; column <= cells.right() / size; ++column) {
                    const QImage tile = tiles_->Find({page, QPoint(column, row)});
                    if (tile.isNull()) continue;
                    const QPointF at = QPointF(where.topLeft()) + QPointF(column * size, row * size) / ratio;
                    painter.drawImage(QRectF(at, QSizeF(tile.size()) / ratio), tile);
                }
            }
        }
        auto paintBoxes = [&](const QVector<Rect>& boxes, const QColor& colour) {
            for (const Rect& r : boxes) {
                painter.fillRect(
                    QRectF(MapFromPage(page, {r.left, r.top}), MapFromPage(page, {r.right, r.bottom})).normalized(),
                    colour);
            }
        };
        paintBoxes(highlights_.value(page), kHighlight);
        if (page == highlightPage_) paintBoxes(currentHighlight_, kCurrentHighlight);
        if (page == selectionPage_) paintBoxes(QVector<Rect>(selection_.rects.begin(), selection_.rects.end()), kSelection);
        if (forms_ != nullptr) forms_->Paint(painter, page);
    }
}

void QuirelleView::resizeEvent(QResizeEvent* event) {
    QAbstractScrollArea::resizeEvent(event);
    Relayout(true);
}

void QuirelleView::scrollContentsBy(int, int) {
    viewport()->update();
    if (forms_ != nullptr) forms_->Place();
    UpdateRequests();
    UpdateCurrentPage();
}

void QuirelleView::keyPressEvent(QKeyEvent* event) {
    QScrollBar* bar = verticalScrollBar();
    const bool control = event->modifiers() & Qt::ControlModifier;
    if (event->matches(QKeySequence::Copy)) return CopySelection(), event->accept();
    if (event->matches(QKeySequence::SelectAll)) return SelectAll(), event->accept();
    switch (event->key()) {
        case Qt::Key_PageDown:
        case Qt::Key_Space:
            bar->triggerAction(QAbstractSlider::SliderPageStepAdd);
            break;
        case Qt::Key_PageUp:
            bar->triggerAction(QAbstractSlider::SliderPageStepSub);
            break;
        case Qt::Key_Home:
            bar->setValue(0);
            break;
        case Qt::Key_End:
            bar->setValue(bar->maximum());
            break;
        case Qt::Key_Backspace:
            GoBack();
            break;
        case Qt::Key_Plus:
        case Qt::Key_Equal:
            if (!control) return QAbstractScrollArea::keyPressEvent(event);
            ZoomIn();
            break;
        case Qt::Key_Minus:
            if (!control) return QAbstractScrollArea::keyPressEvent(event);
            ZoomOut();
            break;
        default:
            return QAbstractScrollArea::keyPressEvent(event);
    }
    event->accept();
}

void QuirelleView::wheelEvent(QWheelEvent* event) {
    if (!(event->modifiers() & Qt::ControlModifier)) return QAbstractScrollArea::wheelEvent(event);
    const QPoint at = event->position().toPoint();
    event->angleDelta().y() > 0 ? ZoomIn(at) : ZoomOut(at);
    event->accept();
}

bool QuirelleView::viewportEvent(QEvent* event) {
    // Pinching: a touch screen's pinch gesture, or a touchpad's native one.
    if (event->type() == QEvent::Gesture) {
        auto* gesture = static_cast<QGestureEvent*>(event);
        if (auto* pinch = static_cast<QPinchGesture*>(gesture->gesture(Qt::PinchGesture))) {
            if (pinch->changeFlags() & QPinchGesture::ScaleFactorChanged)
                ZoomAt(zoom_ * pinch->scaleFactor(), viewport()->mapFromGlobal(pinch->centerPoint().toPoint()));
            gesture->accept(pinch);
            return true;
        }
    }
    if (event->type() == QEvent::NativeGesture) {
        auto* gesture = static_cast<QNativeGestureEvent*>(event);
        if (gesture->gestureType() == Qt::ZoomNativeGesture) {
            ZoomAt(zoom_ * (1.0 + gesture->value()), gesture->pos());
            return true;
        }
    }
    return QAbstractScrollArea::viewportEvent(event);
}

void QuirelleView::CheckLink(const QPoint& viewportPoint) {
    const auto hit = PageAt(viewportPoint);
    if (!hit) return viewport()->unsetCursor();
    linkQueryBusy_ = true;
    auto answer =
        source_->Service().IsInsideLinkArea(Document(), static_cast<unsigned>(hit->first),
                                            static_cast<int>(hit->second.x()), static_cast<int>(hit->second.y()));
    WhenReady(this, std::move(answer), [this](std::future<bool>& inside) {
        linkQueryBusy_ = false;
        bool onLink = false;
        try {
            onLink = inside.get();
        } catch (const std::exception&) {
            // The page went away (an edit): no link there any more.
        }
        if (onLink) {
            viewport()->setCursor(Qt::PointingHandCursor);
        } else {
            viewport()->unsetCursor();
        }
        // Only the latest position the pointer moved to while this one was asked.
        if (auto next = std::exchange(nextLinkQuery_, std::nullopt)) CheckLink(*next);
    });
}

void QuirelleView::mouseMoveEvent(QMouseEvent* event) {
    if (pressHit_ && (event->buttons() & Qt::LeftButton) &&
        (selecting_ || (event->pos() - pressPoint_).manhattanLength() >= QApplication::startDragDistance())) {
        // A drag selects on the page where it began.
        selecting_ = true;
        const int page = pressHit_->first;
        const auto to = PointOnPage(page, event->pos());
        if (!to) return;
        const PDF::Position a{pressHit_->second.x(), pressHit_->second.y()}, b{to->x(), to->y()};
        const int64_t doc = Document();
        AskSelection(page, [this, doc, page, a, b] { return reader_->SelectText(doc, static_cast<unsigned>(page), a, b); });
        return event->accept();
    }
    if (!linksEnabled_ || Document() < 0) return QAbstractScrollArea::mouseMoveEvent(event);
    if (linkQueryBusy_) {
        nextLinkQuery_ = event->pos();
    } else {
        CheckLink(event->pos());
    }
}

void QuirelleView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::BackButton || event->button() == Qt::ForwardButton) {
        event->button() == Qt::BackButton ? GoBack() : GoForward();
        return event->accept();
    }
    pressPoint_ = event->pos();
    selecting_ = false;
    pressHit_.reset();
    // A form field's widget takes the click before the text under it.
    if (event->button() == Qt::LeftButton && forms_ != nullptr && forms_->Press(event->pos())) {
        selecting_ = true;  // the release follows no link
        return event->accept();
    }
    if (event->button() == Qt::LeftButton && reader_ != nullptr) {
        pressHit_ = PageAt(event->pos());
        // A third click soon after a double click, where it was: the line.
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (pressHit_ && lastDoubleClick_ >= 0 && now - lastDoubleClick_ <= QApplication::doubleClickInterval() &&
            (event->pos() - lastDoubleClickPoint_).manhattanLength() < QApplication::startDragDistance()) {
            lastDoubleClick_ = -1;
            const int page = pressHit_->first;
            const PDF::Position at{pressHit_->second.x(), pressHit_->second.y()};
            const int64_t doc = Document();
            AskSelection(page, [this, doc, page, at] { return reader_->SelectLine(doc, static_cast<unsigned>(page), at); });
            selecting_ = true;  // the release follows no link
            pressHit_.reset();
            return event->accept();
        }
    }
    QAbstractScrollArea::mousePressEvent(event);
}

void QuirelleView::mouseDoubleClickEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && forms_ != nullptr && forms_->OnField(event->pos())) return event->accept();
    if (event->button() != Qt::LeftButton || reader_ == nullptr) return QAbstractScrollArea::mouseDoubleClickEvent(event);
    const auto hit = PageAt(event->pos());
    if (!hit) return;
    lastDoubleClick_ = QDateTime::currentMSecsSinceEpoch();
    lastDoubleClickPoint_ = event->pos();
    const int page = hit->first;
    const PDF::Position at{hit->second.x(), hit->second.y()};
    const int64_t doc = Document();
    AskSelection(page, [this, doc, page, at] { return reader_->SelectWord(doc, static_cast<unsigned>(page), at); });
    selecting_ = true;
    pressHit_.reset();
    event->accept();
}

std::optional<QPointF> QuirelleView::PointOnPage(int page, const QPoint& viewportPoint) const {
    const QRect where = PageRect(page);
    if (where.isEmpty() || !source_->At(page).known) return std::nullopt;
    const QPoint inside(std::clamp(viewportPoint.x(), where.left(), where.right()),
                        std::clamp(viewportPoint.y(), where.top(), where.bottom()));
    const PageSource::Page& info = source_->At(page);
    const double scale = info.size.width() / std::max(1, where.width());
    return FromDisplayed(info, QPointF(inside - where.topLeft()) * scale);
}

void QuirelleView::AskSelection(int page, std::function<std::future<TextSelection>()> ask) {
    if (reader_ == nullptr || Document() < 0) return;
    if (selectionBusy_) {
        nextSelection_ = std::make_pair(page, std::move(ask));
        return;
    }
    selectionBusy_ = true;
    const uint64_t generation = selectionGeneration_;
    WhenReady(this, ask(), [this, page, generation](std::future<TextSelection>& answer) {
        selectionBusy_ = false;
        try {
            TextSelection chosen = answer.get();
            if (generation == selectionGeneration_) {
                selection_ = std::move(chosen);
                selectionPage_ = selection_.charCount > 0 ? page : -1;
                viewport()->update();
                emit SelectionChanged();
            }
        } catch (const std::exception&) {
            // The page went away meanwhile (an edit): nothing selected there.
        }
        if (auto next = std::exchange(nextSelection_, std::nullopt)) AskSelection(next->first, std::move(next->second));
    });
}

void QuirelleView::SelectAll() {
    if (reader_ == nullptr || CurrentPage() < 0) return;
    const int page = CurrentPage();
    const int64_t doc = Document();
    AskSelection(page, [this, doc, page] { return reader_->SelectAll(doc, static_cast<unsigned>(page)); });
}

void QuirelleView::ClearSelection() {
    ++selectionGeneration_;
    nextSelection_.reset();
    const bool had = selectionPage_ >= 0;
    selection_ = TextSelection();
    selectionPage_ = -1;
    if (had) {
        viewport()->update();
        emit SelectionChanged();
    }
}

void QuirelleView::CopySelection() const {
    if (selectionPage_ < 0 || selection_.text.empty()) return;
    QApplication::clipboard()->setText(QString::fromStdString(selection_.text));
}

void QuirelleView::mouseReleaseEvent(QMouseEvent* event) {
    QAbstractScrollArea::mouseReleaseEvent(event);
    pressHit_.reset();
    if (std::exchange(selecting_, false)) return;
    // A plain click drops the selection.
    if (event->button() == Qt::LeftButton &&
        (event->pos() - pressPoint_).manhattanLength() < QApplication::startDragDistance())
        ClearSelection();
    if (!linksEnabled_ || event->button() != Qt::LeftButton ||
        (event->pos() - pressPoint_).manhattanLength() >= QApplication::startDragDistance())
        return;
    const auto hit = PageAt(event->pos());
    if (!hit) return;
    auto link = source_->Service().HandleLink(Document(), static_cast<unsigned>(hit->first),
                                              static_cast<int>(hit->second.x()), static_cast<int>(hit->second.y()));
    WhenReady(this, std::move(link), [this](std::future<IPDFProvider::DestinationLinkInfo>& answer) {
        IPDFProvider::DestinationLinkInfo target;
        try {
            target = answer.get();
        } catch (const std::exception&) {
            return;  // the page went away meanwhile
        }
        if (target.pageIndex >= 0) {
            JumpToPage(target.pageIndex, target.y);
        } else if (!target.uri.empty()) {
            emit UriActivated(QString::fromStdString(target.uri));
        }
    });
}

}  // namespace Orvane::PDF
