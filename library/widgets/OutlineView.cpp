#include "OutlineView.h"

#include <QHeaderView>

#include "GuiThread.h"

namespace Orvane::PDF {

OutlineView::OutlineView(IReadingProvider& service, QWidget* parent) : QTreeWidget(parent), service_(service) {
    setHeaderHidden(true);
    setColumnCount(1);
    setMinimumWidth(160);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setExpandsOnDoubleClick(false);
    connect(this, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem* item) { Activate(item); });
    connect(this, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem* item) { Activate(item); });
}

void OutlineView::SetDocument(int64_t id) {
    clear();
    entries_.clear();
    current_ = -1;
    doc_ = id;
    const uint64_t generation = ++generation_;
    if (id < 0) return emit Loaded(0);
    WhenReady(this, service_.GetOutline(id), [this, generation](std::future<std::vector<OutlineEntry>>& answer) {
        if (generation != generation_) return;  // another document meanwhile
        std::vector<OutlineEntry> outline;
        try {
            outline = answer.get();
        } catch (const std::exception&) {
            // Closed meanwhile, or an outline the engine could not read: none.
        }
        Fill(outline, nullptr);
        const int page = std::exchange(currentPage_, -1);
        if (page >= 0) SetCurrentPage(page);
        emit Loaded(EntryCount());
    });
}

void OutlineView::Fill(const std::vector<OutlineEntry>& entries, QTreeWidgetItem* parent) {
    for (const OutlineEntry& entry : entries) {
        auto item = parent ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(this);
        const QString title = QString::fromStdString(entry.title).simplified();
        item->setText(0, title);
        item->setToolTip(0, title);
        if (entry.hasColor) item->setForeground(0, QColor(QRgb(entry.color)));
        if (entry.bold || entry.italic) {
            QFont font = item->font(0);
            font.setBold(entry.bold);
            font.setItalic(entry.italic);
            item->setFont(0, font);
        }
        item->setData(0, Qt::UserRole, static_cast<int>(entries_.size()));
        OutlineEntry target = entry;
        target.children.clear();
        entries_.push_back({item, std::move(target)});
        Fill(entry.children, item);
        item->setExpanded(entry.open);
    }
}

void OutlineView::Activate(QTreeWidgetItem* item) {
    if (item == nullptr) return;
    const int index = item->data(0, Qt::UserRole).toInt();
    if (index < 0 || index >= EntryCount()) return;
    const OutlineEntry& target = entries_[static_cast<size_t>(index)].target;
    if (target.pageIndex >= 0) {
        emit PageActivated(target.pageIndex, target.y);
    } else if (!target.uri.empty()) {
        emit UriActivated(QString::fromStdString(target.uri));
    }
}

void OutlineView::SetCurrentPage(int page) {
    currentPage_ = page;
    int best = -1;
    for (int i = 0; i < EntryCount(); ++i) {
        const int target = entries_[static_cast<size_t>(i)].target.pageIndex;
        if (target >= 0 && target <= page && (best < 0 || target >= entries_[static_cast<size_t>(best)].target.pageIndex))
            best = i;
    }
    if (best == current_) return;
    current_ = best;
    if (best < 0) {
        clearSelection();
        return;
    }
    QTreeWidgetItem* item = entries_[static_cast<size_t>(best)].item;
    // Shown inside closed parents too: the closest open ancestor is marked.
    QTreeWidgetItem* shown = item;
    for (QTreeWidgetItem* up = item->parent(); up != nullptr; up = up->parent())
        if (!up->isExpanded()) shown = up;
    setCurrentItem(shown);
    scrollToItem(shown);
}

QString OutlineView::CurrentTitle() const {
    return current_ < 0 ? QString() : entries_[static_cast<size_t>(current_)].item->text(0);
}

}  // namespace Orvane::PDF
