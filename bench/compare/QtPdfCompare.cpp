// Debian's QtPdf module: QPdfDocument::load and QPdfDocument::render, called
// on this thread as an application would call them.

#include <QGuiApplication>
#include <QtPdf/QPdfDocument>

#include "Compare.h"

namespace {

class QtPdfBackend : public QuirelleCompare::Backend {
public:
    int Open(const std::string& path) override {
        if (document_.load(QString::fromStdString(path)) != QPdfDocument::NoError) return -1;
        return document_.pageCount();
    }
    QSizeF PageSize(int page) override { return document_.pageSize(page); }
    QImage Render(int page, QSize size) override { return document_.render(page, size); }
    void Close() override { document_.close(); }

private:
    QPdfDocument document_;
};

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QtPdfBackend backend;
    return QuirelleCompare::CompareMain(argc, argv, backend);
}
