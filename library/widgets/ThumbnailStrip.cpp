#include "ThumbnailStrip.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QStyle>
#include <algorithm>
#include <cmath>

#include "PageSource.h"

namespace Orvane::PDF {

namespace {
const QSize kBox(120, 156);  // a thumbnail fits in this box
}

ThumbnailStrip::ThumbnailStrip(IPDFProvider& service, QWidget* parent)
    : QListWidget(parent), source_(new PageSource(service, IPageInfoObserver::ThumbnailView, this)) {
    // Icons in rows that wrap: in a strip one grid cell wide, a column.
    setViewMode(QListView::IconMode);
    setFlow(QListView::LeftToRight);
    setWrapping(true);
    setMovement(QListView::Static);
    setResizeMode(QListView::Adjust);
    setUniformItemSizes(true);
    setIconSize(kBox);
    setSpacing(6);
    setGridSize(kBox + QSize(16, 24));  // room for the picture and its page number
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setDragEnabled(false);  // the strip drags by itself: see the mouse handlers
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMinimumWidth(gridSize().width() + style()->pixelMetric(QStyle::PM_ScrollBarExtent) + 2 * frameWidth() + 4);
    connect(source_, &PageSource::LayoutChanged, this, &ThumbnailStrip::Rebuild);
    connect(source_, &PageSource::ImageArrived, this, [this](int page) {
        QListWidgetItem* it = item(page);
        if (it == nullptr || source_->At(page).image.isNull()) return;
        // A thin frame, so that a white page stands out from the strip.
        QPixmap picture = QPixmap::fromImage(source_->At(page).image);
        QPainter painter(&picture);
        painter.setPen(QColor(0x90, 0x90, 0x90));
        painter.drawRect(picture.rect().adjusted(0, 0, -1, -1));
        painter.end();
        it->setIcon(QIcon(picture));
    });
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, &ThumbnailStrip::UpdateRequests);
    connect(this, &QListWidget::itemClicked, this, [this](QListWidgetItem* it) { emit PageActivated(row(it)); });
}

ThumbnailStrip::~ThumbnailStrip() = default;

void ThumbnailStrip::SetDocument(int64_t id) {
    source_->SetDocument(id);
    Rebuild();
}

int64_t ThumbnailStrip::Document() const {
    return source_->Document();
}

void ThumbnailStrip::Reload() {
    source_->Reload();
    Rebuild();  // one row per page at once, as the selection is set right after an edit
}

void ThumbnailStrip::RefreshPictures() {
    source_->Refresh();
    UpdateRequests();
}

QVector<int> ThumbnailStrip::SelectedPages() const {
    QVector<int> pages;
    for (const QModelIndex& index : selectionModel()->selectedIndexes()) pages.push_back(index.row());
    std::sort(pages.begin(), pages.end());
    return pages;
}

void ThumbnailStrip::SelectPages(const QVector<int>& pages) {
    QItemSelection selection;
    for (int page : pages) {
        if (page >= 0 && page < count()) selection.select(model()->index(page, 0), model()->index(page, 0));
    }
    selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
    if (!pages.isEmpty() && pages.first() >= 0 && pages.first() < count()) {
        selectionModel()->setCurrentIndex(model()->index(pages.first(), 0), QItemSelectionModel::NoUpdate);
        scrollToItem(item(pages.first()));
    }
}

void ThumbnailStrip::SetCurrentPage(int page) {
    if (page < 0 || page >= count()) return;
    setCurrentRow(page, QItemSelectionModel::NoUpdate);
    scrollToItem(item(page));
}

bool ThumbnailStrip::HasThumbnail(int page) const {
    return page >= 0 && page < source_->Count() && !source_->At(page).image.isNull();
}

void ThumbnailStrip::Rebuild() {
    if (count() != source_->Count()) {
        clear();
        for (int page = 0; page < source_->Count(); ++page) {
            auto it = new QListWidgetItem(QString::number(page + 1), this);
            it->setSizeHint(gridSize());  // the same with or without a picture yet
        }
    }
    for (int page = 0; page < count(); ++page) {
        if (source_->At(page).image.isNull()) item(page)->setIcon(QIcon());
    }
    UpdateRequests();
}

void ThumbnailStrip::UpdateRequests() {
    std::map<int, QSize> wanted;
    const int screen = viewport()->height();
    int first = -1, last = -1;
    for (int page = 0; page < count(); ++page) {
        const QRect where = visualItemRect(item(page));
        if (where.bottom() < -screen || where.top() > 2 * screen) continue;
        if (first < 0) first = page;
        last = page;
        // The visible rows and one screen ahead.
        if (where.bottom() < 0) continue;
        const QSizeF size = source_->At(page).size.scaled(kBox, Qt::KeepAspectRatio) * devicePixelRatioF();
        wanted[page] = QSize(static_cast<int>(std::lround(size.width())), static_cast<int>(std::lround(size.height())));
    }
    source_->Want(wanted, first, last);
    for (int page = 0; page < count(); ++page) {
        if ((page < first || page > last) && !item(page)->icon().isNull()) item(page)->setIcon(QIcon());
    }
}

int ThumbnailStrip::DropRow(const QPoint& point) const {
    for (int page = 0; page < count(); ++page) {
        const QRect where = visualItemRect(item(page));
        if (point.y() < where.center().y()) return page;
    }
    return count();
}

void ThumbnailStrip::mousePressEvent(QMouseEvent* event) {
    pressPoint_ = event->pos();
    dragging_ = false;
    QListWidgetItem* pressed = itemAt(event->pos());
    // Pressing on a selected thumbnail may start a drag of the whole selection:
    // the selection changes only on a release without a drag.
    pressedOnSelected_ = pressed != nullptr && pressed->isSelected() && event->modifiers() == Qt::NoModifier &&
                         event->button() == Qt::LeftButton;
    if (!pressedOnSelected_) QListWidget::mousePressEvent(event);
}

void ThumbnailStrip::mouseMoveEvent(QMouseEvent* event) {
    const bool canDrag = (event->buttons() & Qt::LeftButton) && !selectedItems().isEmpty();
    if (canDrag && !dragging_ && (event->pos() - pressPoint_).manhattanLength() >= QApplication::startDragDistance())
        dragging_ = true;
    if (!dragging_) return QListWidget::mouseMoveEvent(event);
    dropRow_ = DropRow(event->pos());
    viewport()->update();
}

void ThumbnailStrip::mouseReleaseEvent(QMouseEvent* event) {
    if (dragging_) {
        dragging_ = false;
        const QVector<int> pages = SelectedPages();
        const int destination = DropRow(event->pos());
        viewport()->update();
        // Dropping a run of pages right where it stands changes nothing.
        const bool inPlace = pages.last() - pages.first() + 1 == pages.size() && destination >= pages.first() &&
                             destination <= pages.last() + 1;
        if (!inPlace) emit MovePagesRequested(pages, destination);
        return;
    }
    if (pressedOnSelected_) {
        QListWidget::mousePressEvent(event);  // the deferred selection
        pressedOnSelected_ = false;
    }
    QListWidget::mouseReleaseEvent(event);
}

void ThumbnailStrip::paintEvent(QPaintEvent* event) {
    QListWidget::paintEvent(event);
    if (!dragging_ || dropRow_ < 0) return;
    // The insertion line above the row the pages would land before.
    const QRect reference = visualItemRect(item(std::min(dropRow_, count() - 1)));
    const int y = dropRow_ < count() ? reference.top() - spacing() / 2 : reference.bottom() + spacing() / 2;
    QPainter painter(viewport());
    painter.setPen(QPen(palette().highlight(), 3));
    painter.drawLine(4, y, viewport()->width() - 4, y);
}

void ThumbnailStrip::resizeEvent(QResizeEvent* event) {
    QListWidget::resizeEvent(event);
    UpdateRequests();
}

}  // namespace Orvane::PDF
