// This library through its public interface: OpenDocument, GetPageInfo,
// GeneratePageImage and ExportPagesTo, each answered by the service's worker.

#include <Quirelle>
#include <memory>

#include "Compare.h"

namespace {

class QuirelleBackend : public QuirelleCompare::Backend {
public:
    int Open(const std::string& path) override {
        id_ = service_.OpenDocument(path, "").get().id;
        return id_ < 0 ? -1 : service_.GetPageCount(id_);
    }
    QSizeF PageSize(int page) override {
        const Orvane::PDF::Size size = service_.GetPageInfo(id_, static_cast<unsigned>(page)).get().size;
        return {size.width, size.height};
    }
    QImage Render(int page, QSize size) override {
        return service_.GeneratePageImage(id_, static_cast<unsigned>(page), size.width(), size.height()).get();
    }
    void Close() override { service_.CloseDoument(id_).get(); }
    bool Export(const std::vector<int>& pages, const std::string& out) override {
        return service_.ExportPagesTo(id_, std::vector<unsigned>(pages.begin(), pages.end()), out).get();
    }

private:
    Orvane::PDF::Quirelle service_{nullptr};
    Orvane::int64 id_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
    QuirelleBackend backend;
    return QuirelleCompare::CompareMain(argc, argv, backend);
}
