// What a reader shows beyond pages: outline, page labels, document
// information and selection are served right after text objects; tiles right
// after page images, asked for through a future or asynchronously (one
// pending request per tile, cancellable, answered to the tile observers; a
// close drops the document's pending tiles like its pending images).

#include "engine/Reading.h"

#include <cmath>
#include <string>

#include "Log.h"
#include "QuirelleImpl.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

// ---- reading queries ----

std::future<std::vector<OutlineEntry>> Quirelle::GetOutline(const int64_t& id) {
    return impl->Enqueue(impl->outlineQueue, id, &Impl::Outline);
}

std::future<std::vector<std::string>> Quirelle::GetPageLabels(const int64_t& id) {
    return impl->Enqueue(impl->pageLabelsQueue, id, &Impl::PageLabels);
}

std::future<int> Quirelle::FindPageByLabel(const int64_t& id, const std::string& label) {
    return impl->Enqueue(impl->pageByLabelQueue, {id, label}, &Impl::PageByLabel);
}

std::future<DocumentInformation> Quirelle::GetDocumentInformation(const int64_t& id) {
    return impl->Enqueue(impl->informationQueue, id, &Impl::Information);
}

std::future<TextSelection> Quirelle::SelectText(const int64_t& id, unsigned page, const Position& from,
                                                const Position& to) {
    return impl->Enqueue(impl->selectionQueue, {id, page, Impl::SelectionTask::Between, from, to}, &Impl::Select);
}

std::future<TextSelection> Quirelle::SelectWord(const int64_t& id, unsigned page, const Position& at) {
    return impl->Enqueue(impl->selectionQueue, {id, page, Impl::SelectionTask::Word, at, {}}, &Impl::Select);
}

std::future<TextSelection> Quirelle::SelectLine(const int64_t& id, unsigned page, const Position& at) {
    return impl->Enqueue(impl->selectionQueue, {id, page, Impl::SelectionTask::Line, at, {}}, &Impl::Select);
}

std::future<TextSelection> Quirelle::SelectAll(const int64_t& id, unsigned page) {
    return impl->Enqueue(impl->selectionQueue, {id, page, Impl::SelectionTask::All, {}, {}}, &Impl::Select);
}

namespace {

void checkPoint(const Position& point, const char* name) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y))
        throw std::invalid_argument(std::string(name) + ": the point is not finite");
}

}  // namespace

std::vector<OutlineEntry> Impl::Outline(const int64_t& id) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(id);
    const Pdfium::SoleUse sole;
    return Pdfium::ReadOutline(*document);
}

std::vector<std::string> Impl::PageLabels(const int64_t& id) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(id);
    const Pdfium::SoleUse sole;
    return Pdfium::ReadPageLabels(*document);
}

int Impl::PageByLabel(const LabelTask& task) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(task.id);
    const Pdfium::SoleUse sole;
    return Pdfium::FindPageByLabel(Pdfium::ReadPageLabels(*document), task.label);
}

DocumentInformation Impl::Information(const int64_t& id) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(id);
    const Pdfium::SoleUse sole;
    return Pdfium::ReadDocumentInformation(*document);
}

TextSelection Impl::Select(const SelectionTask& task) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(task.id);
    static const char* const names[] = {"SelectText", "SelectWord", "SelectLine", "SelectAll"};
    if (task.kind != SelectionTask::All) checkPoint(task.from, names[task.kind]);
    if (task.kind == SelectionTask::Between) checkPoint(task.to, names[task.kind]);
    std::shared_ptr<ITextObject> text;
    {
        const Pdfium::SoleUse sole;
        text = document->GetPage(task.page)->GetTextObject();
    }
    switch (task.kind) {
        case SelectionTask::Between:
            return Pdfium::SelectBetween(*text, task.from, task.to);
        case SelectionTask::Word:
            return Pdfium::SelectWordAt(*text, task.from);
        case SelectionTask::Line:
            return Pdfium::SelectLineAt(*text, task.from);
        case SelectionTask::All:
            break;
    }
    return Pdfium::SelectAllText(*text);
}

// ---- tiles ----

QImage Impl::RenderTile(const TileTask& task) const {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(task.id);
    const Pdfium::SoleUse sole;
    const Pdfium::RequestBudget budget;
    return Pdfium::RenderTile(document->GetPage(task.page), task.region, task.scale,
                              task.viewType == IPageInfoObserver::PrintView);
}

std::future<QImage> Quirelle::GenerateTile(const int64_t& id, unsigned page, const Rect& region, double scale,
                                           IPageInfoObserver::ViewType viewType) {
    return impl->Enqueue(impl->tileQueue, {id, page, region, scale, viewType}, &Impl::RenderTile);
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
        MutexLock lock(queueMutex);
        // One pending request per tile: asking again keeps its place in line.
        for (const TileTask& pending : pendingTiles.Items(queueMutex)) {
            if (pending.SameTile(request)) return;
        }
        pendingTiles.Add(queueMutex, request);
    }
    Wake();
}

void Impl::CancelTileRequests(const std::function<bool(const TileTask&)>& matches) {
    MutexLock lock(queueMutex);
    pendingTiles.Items(queueMutex).remove_if(matches);
}

void Impl::ServePendingTile() {
    const std::optional<TileTask> taken = TakeFirst(pendingTiles);
    if (!taken) return;
    const TileTask& request = *taken;
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
