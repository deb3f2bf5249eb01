#pragma once

// A continuous, scrolling view of one open document of a Quirelle service.
//
//   Orvane::PDF::Quirelle service(nullptr);
//   auto view = new Orvane::PDF::QuirelleView(service);
//   view->SetDocument(service.OpenDocument("manual.pdf", "").get().id);
//
// Pages are drawn as the service answers; only the visible pages and one
// screen ahead are asked for, and requests for pages scrolled away are
// withdrawn. A zoom change draws the old pictures scaled until the new ones
// arrive; zoom goes from 10 % to 6400 %. Where a page's whole picture would
// pass a few megapixels, the page is asked at that size and drawn scaled,
// and the visible parts are drawn over it from tiles of 512 pixels at the
// zoom shown (when the service is also an IReadingProvider), so that memory
// stays bounded at any zoom while every zoom is sharp. Link jumps and
// JumpToPage are remembered for Back and Forward.
//
// With an IReadingProvider, text is selected with the mouse: a drag selects
// in reading order, a double click a word, a triple click a line; Ctrl+A
// selects the current page's text and Ctrl+C copies the selection.
// With an IFormProvider, the form's fields are filled in place (Forms()).
// Other edits are not the view's: after one, call Reload(), or Redraw() when
// the page list stayed.
// GUI thread only; the service must outlive the view.

#include <QAbstractScrollArea>
#include <QHash>
#include <QPointF>
#include <QRectF>
#include <QVector>
#include <Quirelle>
#include <memory>
#include <functional>
#include <optional>
#include <vector>

#include "WidgetsExport.h"

namespace Orvane::PDF {

class FormEditing;
class PageSource;
class TileCache;

class QUIRELLE_WIDGETS_EXPORT QuirelleView : public QAbstractScrollArea {
    Q_OBJECT
public:
    enum class ZoomMode { Custom, FitWidth, FitPage };

    explicit QuirelleView(IPDFProvider& service, QWidget* parent = nullptr);
    ~QuirelleView() override;

    // Shows an open document (-1: nothing) from its first page.
    void SetDocument(int64_t id);
    int64_t Document() const;
    // Page count and sizes again after the document's page list changed;
    // keeps the current page where it can.
    void Reload();
    // Filling in the form; null when the service has no form queries.
    FormEditing* Forms() const { return forms_; }
    int PageCount() const;
    // The pages drawn again after an edit that kept the page list (an
    // annotation): the old pictures show until the new ones arrive.
    void Redraw();
    // The page that fills most of the view; -1 without pages.
    int CurrentPage() const { return currentPage_; }
    // A page's size in points as displayed (estimated until the service answers).
    QSizeF PageSize(int page) const;

    // 1.0 shows a page at its printed size on this screen.
    double Zoom() const { return zoom_; }
    ZoomMode Mode() const { return mode_; }
    void SetZoom(double zoom);  // switches to ZoomMode::Custom
    void SetZoomMode(ZoomMode mode);
    // The next step (25 % ... 6400 %), keeping the point under anchor (a
    // viewport point; the centre by default) where it is.
    void ZoomIn(std::optional<QPoint> anchor = std::nullopt);
    void ZoomOut(std::optional<QPoint> anchor = std::nullopt);
    void ZoomAt(double zoom, const QPoint& anchor);

    // Where the view's top stands: a page and how far down it (0..1).
    struct Position {
        int page = -1;
        double fraction = 0.0;
    };
    Position CurrentPosition() const;
    void SetPosition(const Position& position);
    // GoToPage that Back returns from.
    void JumpToPage(int page, std::optional<double> pageY = std::nullopt);
    bool CanGoBack() const { return !back_.empty(); }
    bool CanGoForward() const { return !forward_.empty(); }
    void GoBack();
    void GoForward();

    // Pages recoloured for reading in the dark: lightness inverted, hues kept.
    void SetDarkMode(bool dark);
    bool DarkMode() const { return dark_; }

    // Scrolls so that the page's top (or the point's height, page space) is at the top.
    void GoToPage(int page, std::optional<double> pageY = std::nullopt);

    // Rectangles (page space) painted over the pages, and those of the current
    // match, on currentPage, stronger.
    void SetHighlights(const QHash<int, QVector<Rect>>& rects, int currentPage = -1, const QVector<Rect>& current = {});
    // Scrolls the rectangle into view if it is not.
    void EnsureVisible(int page, const Rect& rect);

    // Where a page lies in viewport coordinates (empty for no such page).
    QRect PageRect(int page) const;
    // The page under a viewport point and the point in page space, if any.
    std::optional<std::pair<int, QPointF>> PageAt(const QPoint& viewportPoint) const;
    QPointF MapFromPage(int page, const QPointF& pagePoint) const;
    // The picture currently shown for a page (null while none has arrived).
    QImage PageImage(int page) const;

    // The selection: on one page (-1: none), its text and rectangles.
    int SelectionPage() const { return selectionPage_; }
    const TextSelection& Selection() const { return selection_; }
    void SelectAll();  // the current page's text
    void ClearSelection();
    void CopySelection() const;  // to the clipboard; nothing without a selection

    // Bytes held by the pictures the view keeps (pages, tiles, dark copies).
    qint64 PictureBytes() const;
    // The tiles drawn over the page now: where each lies in the viewport and
    // the page-space region it was asked for at TileScale().
    std::vector<std::pair<QRect, Rect>> ShownTiles(int page) const;
    double TileScale() const;
    int PendingTiles() const;

    // Links: the cursor turns into a hand over a link (IsInsideLinkArea); a
    // click (HandleLink) jumps inside the document or reports a URI.
    void SetLinksEnabled(bool enabled) { linksEnabled_ = enabled; }

signals:
    void CurrentPageChanged(int page);
    void ZoomChanged(double zoom);
    void UriActivated(const QString& uri);
    void ImageArrived(int page);
    void HistoryChanged();
    void SelectionChanged();
    // A tile arrived and was drawn.
    void TileArrived(int page);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    void keyPressEvent(QKeyEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    bool viewportEvent(QEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

private:
    double PixelsPerPoint() const;
    QSizeF DisplaySize(int page) const;  // device-independent pixels
    void Relayout(bool keepPosition);
    void UpdateRequests();
    void UpdateCurrentPage();
    void ApplyZoom(double zoom, ZoomMode mode);
    int PageAtY(int y) const;  // content coordinates
    void CheckLink(const QPoint& viewportPoint);
    double MaxZoom() const;
    void Step(bool in, std::optional<QPoint> anchor);
    // Tiles: a page is tiled when its whole picture passes kTilePixels.
    QSize WholePixels(int page) const;
    bool Tiled(int page) const;
    Rect CellRegion(int page, const QRect& pixels) const;
    QRect CellPixels(int page, const QPoint& cell) const;
    void UpdateTiles();
    // Selection: asks one query at a time; the latest waiting one follows.
    void AskSelection(int page, std::function<std::future<TextSelection>()> ask);
    std::optional<QPointF> PointOnPage(int page, const QPoint& viewportPoint) const;

    PageSource* source_;
    IReadingProvider* reader_;  // null when the service answers no reading queries
    TileCache* tiles_ = nullptr;
    FormEditing* forms_ = nullptr;
    TextSelection selection_;
    int selectionPage_ = -1;
    uint64_t selectionGeneration_ = 0;
    bool selectionBusy_ = false;
    std::optional<std::pair<int, std::function<std::future<TextSelection>()>>> nextSelection_;
    std::optional<std::pair<int, QPointF>> pressHit_;  // where a drag began
    bool selecting_ = false;
    qint64 lastDoubleClick_ = -1;  // ms since epoch, for a triple click
    QPoint lastDoubleClickPoint_;
    double zoom_ = 1.0;
    ZoomMode mode_ = ZoomMode::FitWidth;
    int currentPage_ = -1;
    std::vector<int> tops_;  // content y of each page's top
    int contentWidth_ = 0;
    int contentHeight_ = 0;
    QHash<int, QVector<Rect>> highlights_;
    int highlightPage_ = -1;
    QVector<Rect> currentHighlight_;
    bool linksEnabled_ = true;
    bool linkQueryBusy_ = false;
    std::optional<QPoint> nextLinkQuery_;
    QPoint pressPoint_;
    std::vector<Position> back_, forward_;
    bool dark_ = false;
    mutable QHash<int, QPair<qint64, QImage>> darkPictures_;  // page: source picture's key, recoloured copy
};

}  // namespace Orvane::PDF
