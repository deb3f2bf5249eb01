// Debian's Poppler-Qt5: Document::load, Page::renderToImage with the
// anti-aliasing a viewer turns on, the resolution chosen so that the page
// fills the picture.

#include <poppler-qt5.h>

#include <memory>

#include "Compare.h"

namespace {

class PopplerBackend : public QuirelleCompare::Backend {
public:
    int Open(const std::string& path) override {
        document_.reset(Poppler::Document::load(QString::fromStdString(path)));
        if (!document_ || document_->isLocked()) return -1;
        document_->setRenderHint(Poppler::Document::Antialiasing, true);
        document_->setRenderHint(Poppler::Document::TextAntialiasing, true);
        return document_->numPages();
    }
    QSizeF PageSize(int page) override {
        const std::unique_ptr<Poppler::Page> p(document_->page(page));
        return p ? p->pageSizeF() : QSizeF();
    }
    QImage Render(int page, QSize size) override {
        const std::unique_ptr<Poppler::Page> p(document_->page(page));
        if (!p) return QImage();
        const QSizeF points = p->pageSizeF();
        return p->renderToImage(72.0 * size.width() / points.width(), 72.0 * size.height() / points.height(), 0, 0,
                                size.width(), size.height());
    }
    void Close() override { document_.reset(); }

private:
    std::unique_ptr<Poppler::Document> document_;
};

}  // namespace

int main(int argc, char** argv) {
    PopplerBackend backend;
    return QuirelleCompare::CompareMain(argc, argv, backend);
}
