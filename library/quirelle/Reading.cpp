// What a reader shows beyond pages: outline, page labels, document
// information and selection are queued as reading queries, served right after
// text objects; tiles are served right after page images, asked for through a
// future or asynchronously (coalesced per tile, cancellable, answered to the
// tile observers).

#include <cmath>
#include <string>

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/Reading.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

// ---- reading queries ----

std::future<std::vector<OutlineEntry>> Quirelle::GetOutline(const int64_t& id) {
    return impl->EnqueueReading<std::vector<OutlineEntry>>(id, [](const std::shared_ptr<IDocument>& document) {
        const Pdfium::SoleUse sole;
        return Pdfium::ReadOutline(*document);
    });
}

std::future<std::vector<std::string>> Quirelle::GetPageLabels(const int64_t& id) {
    return impl->EnqueueReading<std::vector<std::string>>(id, [](const std::shared_ptr<IDocument>& document) {
        const Pdfium::SoleUse sole;
        return Pdfium::ReadPageLabels(*document);
    });
}

std::future<int> Quirelle::FindPageByLabel(const int64_t& id, const std::string& label) {
    return impl->EnqueueReading<int>(id, [label](const std::shared_ptr<IDocument>& document) {
        const Pdfium::SoleUse sole;
        return Pdfium::FindPageByLabel(Pdfium::ReadPageLabels(*document), label);
    });
}

std::future<DocumentInformation> Quirelle::GetDocumentInformation(const int64_t& id) {
    return impl->EnqueueReading<DocumentInformation>(id, [](const std::shared_ptr<IDocument>& document) {
        const Pdfium::SoleUse sole;
        return Pdfium::ReadDocumentInformation(*document);
    });
}

namespace {

void checkPoint(const Position& point, const char* name) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y))
        throw std::invalid_argument(std::string(name) + ": the point is not finite");
}

// The page's text, read on the worker.
std::shared_ptr<ITextObject> pageText(const std::shared_ptr<IDocument>& document, unsigned page) {
    const Pdfium::SoleUse sole;
    return document->GetPage(page)->GetTextObject();
}

}  // namespace

std::future<TextSelection> Quirelle::SelectText(const int64_t& id, unsigned page, const Position& from,
                                                const Position& to) {
    return impl->EnqueueReading<TextSelection>(id, [page, from, to](const std::shared_ptr<IDocument>& document) {
        checkPoint(from, "SelectText");
        checkPoint(to, "SelectText");
        return Pdfium::SelectBetween(*pageText(document, page), from, to);
    });
}

std::future<TextSelection> Quirelle::SelectWord(const int64_t& id, unsigned page, const Position& at) {
    return impl->EnqueueReading<TextSelection>(id, [page, at](const std::shared_ptr<IDocument>& document) {
        checkPoint(at, "SelectWord");
        return Pdfium::SelectWordAt(*pageText(document, page), at);
    });
}

std::future<TextSelection> Quirelle::SelectLine(const int64_t& id, unsigned page, const Position& at) {
    return impl->EnqueueReading<TextSelection>(id, [page, at](const std::shared_ptr<IDocument>& document) {
        checkPoint(at, "SelectLine");
        return Pdfium::SelectLineAt(*pageText(document, page), at);
    });
}

std::future<TextSelection> Quirelle::SelectAll(const int64_t& id, unsigned page) {
    return impl->EnqueueReading<TextSelection>(id, [page](const std::shared_ptr<IDocument>& document) {
        return Pdfium::SelectAllText(*pageText(document, page));
    });
}

void Impl::ServeReadingWork() {
    std::unique_lock<std::mutex> lock(queueMutex);
    if (readingQueue.empty()) return;
    ReadingWork item = std::move(readingQueue.front());
    readingQueue.pop_front();
    lock.unlock();
    const Pdfium::RequestBudget budget;
    item.run();
}

// ---- tiles ----

QImage Impl::RenderTile(const TileTask& task) const {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) throw std::invalid_argument("Invalid doc handle");
    const Pdfium::SoleUse sole;
    const Pdfium::RequestBudget budget;
    return Pdfium::RenderTile(document->GetPage(task.page), task.region, task.scale,
                              task.viewType == IPageInfoObserver::PrintView);
}

std::future<QImage> Quirelle::GenerateTile(const int64_t& id, unsigned page, const Rect& region, double scale,
                                           IPageInfoObserver::ViewType viewType) {
    return impl->Enqueue(impl->tileQueue, Impl::TileTask{id, page, region, scale, viewType},
                         [i = impl.get()](const Impl::TileTask& task) { return i->RenderTile(task); });
}

void Quirelle::GenerateTileAsync(const int64_t& id, unsigned page, const Rect& region, double scale,
                                 IPageInfoObserver::ViewType viewType) {
    impl->AddTileRequest({id, page, region, scale, viewType});
}

void Quirelle::CancelTile(const int64_t& id, unsigned page, const Rect& region, double scale,
                          IPageInfoObserver::ViewType viewType) {
    const Impl::TileTask key{id, page, region, scale, viewType};
    impl->CancelTileRequests([&key](const Impl::TileTask& tile) { return tile.SameTile(key); });
}

void Quirelle::CancelTiles(const int64_t& id, unsigned page) {
    impl->CancelTileRequests([id, page](const Impl::TileTask& tile) { return tile.id == id && tile.page == page; });
}

void Quirelle::RegisterTileObserver(ITileObserver* observer) {
    static_cast<Core::EventPublisher<ITileObserver>&>(impl->tileObservers).RegisterEventHandler(observer);
}

void Quirelle::UnregisterTileObserver(ITileObserver* observer) {
    static_cast<Core::EventPublisher<ITileObserver>&>(impl->tileObservers).UnregisterEventHandler(observer);
}

void Impl::AddTileRequest(const TileTask& request) {
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // One pending request per tile: asking again keeps its place in line.
        for (const TileTask& pending : pendingTiles) {
            if (pending.SameTile(request)) return;
        }
        pendingTiles.push_back(request);
    }
    Wake();
}

void Impl::CancelTileRequests(const std::function<bool(const TileTask&)>& matches) {
    std::lock_guard<std::mutex> lock(queueMutex);
    pendingTiles.remove_if(matches);
}

void Impl::ServePendingTile() {
    TileTask request;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (pendingTiles.empty()) return;
        request = pendingTiles.front();
        pendingTiles.pop_front();
    }
    QImage tile;
    try {
        tile = RenderTile(request);
    } catch (const std::exception& e) {
        // Answered with a null tile.
        VLOG(1) << "tile of page " << request.page << " not drawn: " << e.what();
    } catch (...) {
    }
    try {
        tileObservers.Notify(&ITileObserver::OnTile, request.id, request.page, request.region, request.scale,
                             request.viewType, tile);
    } catch (const std::exception& e) {
        QUIRELLE_LOG(ERROR) << "An observer failed on a tile: " << e.what();
    } catch (...) {
        QUIRELLE_LOG(ERROR) << "An observer failed on a tile";
    }
}

}  // namespace Orvane::PDF
