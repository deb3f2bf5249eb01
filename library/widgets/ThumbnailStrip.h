#pragma once

// A column of page thumbnails (view type 1) for one open document, to sit
// beside a QuirelleView. Thumbnails are asked for the visible rows and one
// screen ahead. Clicking a thumbnail reports the page; dragging the selected
// thumbnails to another place reports the move (the strip itself never edits
// the document: do the edit, then call Reload()).
// GUI thread only; the service must outlive the strip.

#include <QListWidget>
#include <QVector>
#include <Quirelle>

#include "WidgetsExport.h"

namespace Orvane::PDF {

class PageSource;

class QUIRELLE_WIDGETS_EXPORT ThumbnailStrip : public QListWidget {
    Q_OBJECT
public:
    explicit ThumbnailStrip(IPDFProvider& service, QWidget* parent = nullptr);
    ~ThumbnailStrip() override;

    void SetDocument(int64_t id);
    int64_t Document() const;
    void Reload();
    // The pictures asked for again after the pages' content changed.
    void RefreshPictures();
    // Selected pages, ascending.
    QVector<int> SelectedPages() const;
    // Selects exactly these pages.
    void SelectPages(const QVector<int>& pages);
    // Marks the page as current and scrolls to it; the selection stays.
    void SetCurrentPage(int page);
    // Whether the page's thumbnail has arrived.
    bool HasThumbnail(int page) const;

signals:
    void PageActivated(int page);
    // The pages (ascending) dragged to land before the page at destination
    // (the page count: at the end), as IPDFProvider::MovePages takes them.
    void MovePagesRequested(const QVector<int>& pages, int destination);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void Rebuild();
    void UpdateRequests();
    int DropRow(const QPoint& point) const;

    PageSource* source_;
    QPoint pressPoint_;
    bool pressedOnSelected_ = false;
    bool dragging_ = false;
    int dropRow_ = -1;
};

}  // namespace Orvane::PDF
