#pragma once

// The outline (table of contents) of one open document as a tree, to sit
// beside a QuirelleView. Entries keep the file's colours, bold and italic,
// and open as the file asks. Clicking an entry reports its target; the entry
// of the page the user reads is marked as the view scrolls (SetCurrentPage).
// GUI thread only; the service must outlive the tree.

#include <QTreeWidget>
#include <Quirelle>
#include <vector>

#include "WidgetsExport.h"

namespace Orvane::PDF {

class QUIRELLE_WIDGETS_EXPORT OutlineView : public QTreeWidget {
    Q_OBJECT
public:
    explicit OutlineView(IReadingProvider& service, QWidget* parent = nullptr);

    // Asks for the document's outline (-1: none); ends with Loaded.
    void SetDocument(int64_t id);
    int64_t Document() const { return doc_; }
    // Asks again, after the document's pages changed.
    void Reload() { SetDocument(doc_); }
    // Marks the last entry, in reading order, that leads to page or a page
    // before it (the section the page belongs to).
    void SetCurrentPage(int page);
    // The marked entry's title; empty when none.
    QString CurrentTitle() const;
    int EntryCount() const { return static_cast<int>(entries_.size()); }
    // The entry's item, in reading order (0 ... EntryCount() - 1).
    QTreeWidgetItem* Entry(int index) const { return entries_.at(static_cast<size_t>(index)).item; }

signals:
    void Loaded(int entries);
    // A click on an entry that leads to a page: y is the height to show at the
    // top (page space), 0 for the page's top.
    void PageActivated(int page, double y);
    void UriActivated(const QString& uri);

private:
    struct Item {
        QTreeWidgetItem* item;
        OutlineEntry target;  // without children
    };
    void Fill(const std::vector<OutlineEntry>& entries, QTreeWidgetItem* parent);
    void Activate(QTreeWidgetItem* item);

    IReadingProvider& service_;
    int64_t doc_ = -1;
    uint64_t generation_ = 0;
    std::vector<Item> entries_;  // reading order
    int current_ = -1;            // index into entries_
    int currentPage_ = -1;
};

}  // namespace Orvane::PDF
