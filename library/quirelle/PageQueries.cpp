// Questions a viewer asks about a page: its geometry, its picture, the link
// or object under a point, its text. Every body runs on the worker and looks
// its document up without the lock.

#include <algorithm>
#include <cmath>

#include "QuirelleImpl.h"
#include "engine/Engine.h"

namespace Orvane::PDF {
namespace {

// One picture: a QImage, an engine bitmap over the QImage's memory (the
// engine draws straight into it) and the renderer. The picture outlives the
// bitmap: members are destroyed renderer first, picture last but one.
class PageRaster {
public:
    PageRaster(std::shared_ptr<IPage> page, QImage picture, bool flag)
        : page_(std::move(page)), picture_(std::move(picture)), flag_(flag) {
        if (picture_.isNull()) return;  // the pixels could not be allocated
        bitmap_ = Pdfium::CreateBitmap(picture_.width(), picture_.height(), IBitmap::Bgrx, picture_.bits(),
                                       static_cast<int>(picture_.bytesPerLine()));
        if (!bitmap_) return;
        renderer_ = Pdfium::CreatePageRenderer();
        const Size bitmapSize = bitmap_->GetSize();
        bitmap_->FillRect(0, 0, static_cast<int>(bitmapSize.width), static_cast<int>(bitmapSize.height), 0xFFFFFFFF);
        renderer_->Render(page_, bitmap_, flag_);
    }

    // The picture, or a null image when no bitmap could be made.
    QImage Picture() const { return bitmap_ ? picture_ : QImage(); }

private:
    std::shared_ptr<IPage> page_;
    QImage picture_;
    std::shared_ptr<IBitmap> bitmap_;
    std::unique_ptr<IPageRenderer> renderer_;
    bool flag_;
};

}  // namespace

IPDFProvider::PageInfo Quirelle::Impl::PageInfoOf(const PageTask& task) const {
    PageInfo info;
    const Pdfium::SoleUse sole;
    const Pdfium::RequestBudget budget;
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return info;  // zero size and rect, rotation 0
    std::shared_ptr<IPage> engine = document->GetPage(task.page);
    info.size = engine->GetSize();
    info.rotation = engine->GetRotation();
    info.rect = engine->GetPageRect();
    return info;
}

QImage Quirelle::Impl::GeneratePageImage(const PageImageTask& task) const {
    return RenderPageImage(FindDocument(task.id), task);
}

QImage Quirelle::Impl::RenderPageImage(const std::shared_ptr<IDocument>& document, const PageImageTask& request) const {
    if (!document) return QImage();
    const Pdfium::SoleUse sole;
    const Pdfium::RequestBudget budget;
    try {
        std::shared_ptr<IPage> page = document->GetPage(request.page);
        int width = request.width;
        int height = request.height;
        if (width == -1 || height == -1) {
            // A page may claim any size up to 3.4e38 points: beyond a
            // million pixels a side there is no picture to make.
            const auto pixels = [](double points) {
                return std::isfinite(points) && points > 0 && points < 1e6 ? static_cast<int>(points) : 0;
            };
            const Size size = page->GetSize();
            if (width == -1) width = pixels(size.width);
            if (height == -1) height = pixels(size.height);
        }
        PageRaster raster(std::move(page), pictures->Take(width, height),
                          request.viewType == IPageInfoObserver::PrintView);
        return raster.Picture();
    } catch (...) {
        // Any failure of one picture is answered with a null image.
        return QImage();
    }
}

IPDFProvider::DestinationLinkInfo Quirelle::Impl::HandleLink(const PagePositionTask& task) const {
    DestinationLinkInfo info;
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return info;
    std::shared_ptr<IPage> page = document->GetPage(task.page);
    const Position point{static_cast<double>(task.x), static_cast<double>(task.y)};
    for (const std::shared_ptr<IAnnotation>& annotation : page->GetAnnotations(IAnnotation::Link)) {
        if (!annotation->Contains(point)) continue;
        auto* link = dynamic_cast<ILinkAnnotation*>(annotation.get());
        if (link == nullptr) return info;  // the first hit decides, even when it is no link
        switch (link->GetLinkType()) {
            case ILinkAnnotation::Destination: {
                const LinkDestination destination = link->GetDestination();
                info.pageIndex = destination.pageIndex;
                info.x = destination.x;
                info.y = destination.y;
                info.zoom = destination.zoom;
                return info;
            }
            case ILinkAnnotation::Uri:
                info.uri = link->GetUri();
                return info;
            default:
                return DestinationLinkInfo();
        }
    }
    return info;
}

bool Quirelle::Impl::IsInsideLinkArea(const PagePositionTask& task) const {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return false;
    std::shared_ptr<IPage> page = document->GetPage(task.page);
    const Position point{static_cast<double>(task.x), static_cast<double>(task.y)};
    for (const std::shared_ptr<IAnnotation>& annotation : page->GetAllAnnotations()) {
        if (annotation->GetType() == IAnnotation::Link && annotation->Contains(point)) return true;
    }
    return false;
}

Rect Quirelle::Impl::GetPageObjectBounds(const PagePositionTask& task) const {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return Rect{-1.0, -1.0, -1.0, -1.0};
    std::shared_ptr<IPage> page = document->GetPage(task.page);
    if (task.kind != IPageObject::Text) {
        std::optional<Rect> bounds = page->GetObjectBoundsAt(task.x, task.y, task.kind);
        return bounds ? *bounds : Rect{0.0, 0.0, 0.0, 0.0};
    }
    const std::vector<int> indices = page->GetObjectIndices();
    if (indices.empty()) return Rect{-1.0, -1.0, -1.0, -1.0};
    Rect united = page->GetObject(indices.front())->GetBounds();
    for (int index : indices) {
        const Rect bounds = page->GetObject(index)->GetBounds();
        united.left = std::min(united.left, bounds.left);
        united.top = std::max(united.top, bounds.top);
        united.right = std::max(united.right, bounds.right);
        united.bottom = std::min(united.bottom, bounds.bottom);
    }
    return united;
}

std::shared_ptr<ITextObject> Quirelle::Impl::GetPageTextObject(const PageTask& task) const {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return nullptr;
    return document->GetPage(task.page)->GetTextObject();
}

}  // namespace Orvane::PDF
