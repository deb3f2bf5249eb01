#include "AnnotationsPanel.h"

#include <QHeaderView>
#include <memory>

#include "GuiThread.h"

namespace Orvane::PDF {

namespace {
constexpr int kShownContents = 80;  // characters of the contents in an entry; all of them in its tooltip

bool Listed(int type) {
    return type != AnnotLink && type != AnnotWidget && type != AnnotPopup;
}
}  // namespace

AnnotationsPanel::AnnotationsPanel(IAnnotationProvider& service, QWidget* parent)
    : QTreeWidget(parent), service_(service) {
    setHeaderHidden(true);
    setColumnCount(1);
    setMinimumWidth(160);
    setSelectionMode(QAbstractItemView::SingleSelection);
    auto activate = [this](QTreeWidgetItem* item) {
        const int index = item == nullptr ? -1 : item->data(0, Qt::UserRole).toInt();
        if (index < 0 || index >= static_cast<int>(entries_.size())) return;
        const Entry& entry = entries_[static_cast<size_t>(index)];
        emit AnnotationActivated(entry.page, entry.annotation.id, entry.annotation.rect);
    };
    connect(this, &QTreeWidget::itemClicked, this, activate);
    connect(this, &QTreeWidget::itemActivated, this, activate);
}

void AnnotationsPanel::SetDocument(int64_t id, int pages) {
    const uint64_t generation = ++generation_;
    if (id != doc_) Fill({});
    doc_ = id;
    if (id < 0 || pages <= 0) return Fill({});
    AskPage(generation, 0, pages, std::make_shared<std::vector<Entry>>());
}

// One page at a time, so that a long document does not flood the queue.
void AnnotationsPanel::AskPage(uint64_t generation, int page, int pages, std::shared_ptr<std::vector<Entry>> found) {
    WhenReady(this, service_.GetAnnotations(doc_, static_cast<unsigned>(page)),
              [this, generation, page, pages, found](std::future<std::vector<Annotation>>& answer) {
                  if (generation != generation_) return;  // asked again meanwhile
                  try {
                      for (Annotation& annotation : answer.get())
                          if (Listed(annotation.type)) found->push_back({page, std::move(annotation)});
                  } catch (const std::exception&) {
                      // Closed or cut short meanwhile: what was found so far.
                      return Fill(std::move(*found));
                  }
                  if (page + 1 < pages) return AskPage(generation, page + 1, pages, found);
                  Fill(std::move(*found));
              });
}

void AnnotationsPanel::ReloadPage(int page) {
    if (doc_ < 0 || page < 0) return;
    const uint64_t generation = generation_;  // a whole list asked meanwhile replaces this one
    WhenReady(this, service_.GetAnnotations(doc_, static_cast<unsigned>(page)),
              [this, generation, page](std::future<std::vector<Annotation>>& answer) {
                  if (generation != generation_) return;
                  std::vector<Annotation> now;
                  try {
                      now = answer.get();
                  } catch (const std::exception&) {
                      return;  // closed meanwhile
                  }
                  std::vector<Entry> entries;
                  auto it = entries_.begin();
                  for (; it != entries_.end() && it->page < page; ++it) entries.push_back(std::move(*it));
                  for (Annotation& annotation : now)
                      if (Listed(annotation.type)) entries.push_back({page, std::move(annotation)});
                  for (; it != entries_.end(); ++it)
                      if (it->page > page) entries.push_back(std::move(*it));
                  Fill(std::move(entries));
              });
}

void AnnotationsPanel::Fill(std::vector<Entry> entries) {
    clear();
    entries_ = std::move(entries);
    QTreeWidgetItem* branch = nullptr;
    int branchPage = -1;
    for (size_t i = 0; i < entries_.size(); ++i) {
        const Entry& entry = entries_[i];
        if (entry.page != branchPage) {
            branchPage = entry.page;
            branch = new QTreeWidgetItem(this);
            branch->setText(0, tr("Page %1").arg(entry.page + 1));
            branch->setData(0, Qt::UserRole, -1);
            branch->setExpanded(true);
        }
        const Annotation& a = entry.annotation;
        const QString contents = QString::fromStdString(a.contents).simplified();
        QString text = QString::fromStdString(a.subtype);
        if (!a.author.empty()) text += QStringLiteral(" \u2013 ") + QString::fromStdString(a.author);
        if (!contents.isEmpty()) {
            text += QStringLiteral(": ") +
                    (contents.size() > kShownContents ? contents.left(kShownContents) + QChar(0x2026) : contents);
        }
        auto item = new QTreeWidgetItem(branch);
        item->setText(0, text);
        item->setToolTip(0, QString::fromStdString(a.contents));
        item->setData(0, Qt::UserRole, static_cast<int>(i));
        if (a.hasColor)
            item->setIcon(0, [&] {
                QPixmap swatch(12, 12);
                swatch.fill(QColor(QRgb(a.color)));
                return QIcon(swatch);
            }());
    }
    emit Loaded(static_cast<int>(entries_.size()));
}

}  // namespace Orvane::PDF
