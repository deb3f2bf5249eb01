#pragma once

#include <QImage>
#include <cstdint>

#include "orvane/pdf/Document.h"
#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

// Receives the answers to asynchronous page requests. Called on the service's
// worker thread, one observer after another: hand lengthy work to your own
// threads, and never wait on a future of the same service inside a callback.
class IPageInfoObserver {
public:
    enum ViewType : int32_t {
        DefaultView = 0,
        ThumbnailView = 1,
        PrintView = 2,  // rendered as for printing
    };

    // Never called by the service.
    virtual void OnDocumentEvent(int64_t /*doc*/) {}
    // Answer to GetPageInfoAsync. A failed request is answered with size
    // 1.0 x 1.0, rotation 0 and an all-zero rect.
    virtual void OnPageInfo(int64_t doc, unsigned page, const Size& size, const IPage::Rotation& rotation,
                            const Rect& rect) = 0;
    // Answer to GeneratePageImageAsync; image is null when the page could not be drawn.
    virtual void OnPageImage(int64_t doc, unsigned page, ViewType viewType, const QImage& image) = 0;
    virtual ~IPageInfoObserver() = default;
};

}  // namespace Orvane::PDF
