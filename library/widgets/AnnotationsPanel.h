#pragma once

// The annotations of one open document as a tree, to sit beside a
// QuirelleView: a branch per page that has any, an entry per annotation with
// its kind, author and contents (links, form fields and popups are left
// out: they are no one's remarks). Clicking an entry reports where it is.
// GUI thread only; the service must outlive the tree.

#include <QTreeWidget>
#include <Quirelle>
#include <vector>

#include "WidgetsExport.h"

namespace Orvane::PDF {

class QUIRELLE_WIDGETS_EXPORT AnnotationsPanel : public QTreeWidget {
    Q_OBJECT
public:
    explicit AnnotationsPanel(IAnnotationProvider& service, QWidget* parent = nullptr);

    // Lists the annotations of the document's pages (-1: none), a page at a
    // time; ends with Loaded.
    void SetDocument(int64_t id, int pages);
    // Lists again after a change; the old list shows until the new one is whole.
    void Reload(int pages) { SetDocument(doc_, pages); }
    // Lists one page again, after a change of its annotations.
    void ReloadPage(int page);
    int64_t Document() const { return doc_; }
    // The entries listed, page by page.
    struct Entry {
        int page = -1;
        Annotation annotation;
    };
    const std::vector<Entry>& Entries() const { return entries_; }

signals:
    void Loaded(int entries);
    void AnnotationActivated(int page, qint64 id, const Orvane::PDF::Rect& rect);

private:
    void AskPage(uint64_t generation, int page, int pages, std::shared_ptr<std::vector<Entry>> found);
    void Fill(std::vector<Entry> entries);

    IAnnotationProvider& service_;
    int64_t doc_ = -1;
    uint64_t generation_ = 0;
    std::vector<Entry> entries_;
};

}  // namespace Orvane::PDF
