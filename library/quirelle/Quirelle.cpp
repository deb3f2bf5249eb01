// The exported facade: every operation forwards to Quirelle::Impl. A queued
// operation names its queue, its record and the member that does the work on
// the worker.

#include "Quirelle"

#include "QuirelleImpl.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

Quirelle::Quirelle(const std::shared_ptr<IFontProviderFactory>& fontProviderFactory)
    : impl(std::make_unique<Impl>(fontProviderFactory)) {}

Quirelle::~Quirelle() = default;

void Quirelle::RegisterEventHandler(IPageInfoObserver* observer) {
    static_cast<Core::EventPublisher<IPageInfoObserver>&>(impl->observers).RegisterEventHandler(observer);
}

void Quirelle::UnregisterEventHandler(IPageInfoObserver* observer) {
    static_cast<Core::EventPublisher<IPageInfoObserver>&>(impl->observers).UnregisterEventHandler(observer);
}

std::future<IPDFProvider::OpenDocInfo> Quirelle::CreateDocument() {
    return OpenDocument(Orvane::ioPath(), "");
}

std::future<IPDFProvider::OpenDocInfo> Quirelle::OpenDocument(const Orvane::ioPath& path, const std::string& password) {
    return impl->Enqueue(impl->openQueue, {-1, path, password}, &Impl::OpenDocument);
}

void Quirelle::SetCallbackOnFormChange(const int64& id, const std::function<void()>& callback) {
    impl->WithOpenDocument(id, [&](IDocument& document) { document.SetFormOnChangeHandler(callback); });
}

int Quirelle::GetPageCount(const int64& id) {
    return impl->WithOpenDocument(id, [](IDocument& document) { return static_cast<int>(document.GetPageCount()); });
}

void Quirelle::GetPageInfoAsync(const int64& id, unsigned page, IPageInfoObserver::ViewType viewType) {
    impl->AddPageInfoRequest({id, page, viewType});
}

std::future<IPDFProvider::PageInfo> Quirelle::GetPageInfo(const int64& id, unsigned page) {
    return impl->Enqueue(impl->pageInfoQueue, {id, page}, &Impl::PageInfoOf);
}

void Quirelle::GeneratePageImageAsync(const int64& id, unsigned page, int width, int height,
                                      IPageInfoObserver::ViewType viewType) {
    impl->AddPageImageRequest({id, page, viewType, width, height});
}

void Quirelle::CancelAsyncTasks(const int64& id, unsigned page, IPageInfoObserver::ViewType viewType) {
    impl->CancelRequests(id, page, viewType);
}

std::future<QImage> Quirelle::GeneratePageImage(const int64& id, unsigned page, int width, int height,
                                                IPageInfoObserver::ViewType viewType) {
    return impl->Enqueue(impl->pageImageQueue, {id, page, viewType, width, height}, &Impl::GeneratePageImage);
}

std::future<QImage> Quirelle::GeneratePageImage(const int64& id, unsigned page, int width, int height) {
    // Through the virtual table, so that an override of the long form serves both.
    IPDFProvider& provider = *this;
    return provider.GeneratePageImage(id, page, width, height, IPageInfoObserver::DefaultView);
}

std::future<Rect> Quirelle::GetPageObjectBounds(const int64& id, unsigned page, int x, int y, int kind) {
    return impl->Enqueue(impl->objectBoundsQueue, {id, page, x, y, kind}, &Impl::GetPageObjectBounds);
}

std::future<std::shared_ptr<ITextObject>> Quirelle::GetPageTextObject(const int64& id, unsigned page) {
    return impl->Enqueue(impl->textObjectQueue, {id, page}, &Impl::GetPageTextObject);
}

std::future<void> Quirelle::RotatePage(const int64& id, unsigned page, PageRotation rotation) {
    return impl->Enqueue(impl->rotationQueue, {id, page, rotation}, &Impl::RotatePage);
}

void Quirelle::ExecuteWithDocument(const int64& id, std::packaged_task<void(std::shared_ptr<IDocument>&)>&& task) {
    // An empty task could only fail on the worker.
    if (!task.valid()) throw std::future_error(std::future_errc::no_state);
    impl->EnqueueCallerWork(id, std::move(task));
}

std::future<void> Quirelle::MovePages(const int64& id, const std::vector<unsigned>& pages, unsigned destination) {
    return impl->Enqueue(impl->moveQueue, {id, destination, pages}, &Impl::MovePages);
}

std::future<void> Quirelle::ImportPages(const int64& sourceId, const int64& targetId,
                                        const std::vector<unsigned>& pages, int position) {
    return impl->Enqueue(impl->importQueue, {sourceId, targetId, position, pages}, &Impl::ImportPages);
}

std::future<void> Quirelle::ImportAllPages(const int64& sourceId, const int64& targetId, int position) {
    return impl->Enqueue(impl->importQueue, {sourceId, targetId, position, {}}, &Impl::ImportAllPages);
}

std::future<bool> Quirelle::SaveDocument(const int64& id) {
    return SaveDocumentAs(id, Orvane::ioPath());
}

std::future<bool> Quirelle::SaveDocumentAs(const int64& id, const Orvane::ioPath& path) {
    return impl->Enqueue(impl->saveQueue, {id, path}, &Impl::SaveDocument);
}

std::future<bool> Quirelle::SaveDocumentAsDecrypted(const int64& id, const Orvane::ioPath& path) {
    return impl->Enqueue(impl->saveQueue, {id, path, true}, &Impl::SaveDocument);
}

std::future<bool> Quirelle::ExportPagesTo(const int64& id, const std::vector<unsigned>& pages,
                                          const Orvane::ioPath& path) {
    return impl->Enqueue(impl->exportQueue, {id, pages, path}, &Impl::ExportPages);
}

std::future<bool> Quirelle::IsInsideLinkArea(const int64& id, unsigned page, int x, int y) {
    return impl->Enqueue(impl->linkAreaQueue, {id, page, x, y, 0}, &Impl::IsInsideLinkArea);
}

std::future<void> Quirelle::DeletePages(const int64& id, const std::vector<unsigned>& pages) {
    return impl->Enqueue(impl->deleteQueue, {id, pages}, &Impl::DeletePages);
}

std::future<void> Quirelle::AddBlankPage(const int64& id, unsigned index, int width, int height) {
    return impl->Enqueue(impl->blankPageQueue, id, [index, width, height](Impl& i, const int64_t& document) {
        i.AddBlankPage(document, index, width, height);
    });
}

Orvane::ioPath Quirelle::GetDocumentPath(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::GetDocumentPath);
}

bool Quirelle::IsProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsProtected);
}

bool Quirelle::IsEditContentProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsEditContentProtected);
}

bool Quirelle::IsEditPagesProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsEditPagesProtected);
}

bool Quirelle::IsExtractingPagesProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsExtractingPagesProtected);
}

bool Quirelle::IsCopyTextAndGraphicsProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsCopyTextAndGraphicsProtected);
}

bool Quirelle::IsPrintProtected(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsPrintProtected);
}

bool Quirelle::IsPrintLowResolution(const int64& id) {
    return impl->WithOpenDocument(id, &IDocument::IsPrintLowResolution);
}

std::future<IPDFProvider::DestinationLinkInfo> Quirelle::HandleLink(const int64& id, unsigned page, int x, int y) {
    return impl->Enqueue(impl->linkQueue, {id, page, x, y, 0}, &Impl::HandleLink);
}

int64 Quirelle::SearchInDocument(const int64& id, unsigned startPage, const std::wstring& text,
                                 const SearchCallback& callback) {
    return impl->AddSearch(id, startPage, text, callback);
}

void Quirelle::StopSearch(const int64& searchId) {
    impl->StopSearch(searchId);
}

std::future<void> Quirelle::CloseDoument(const int64& id) {
    return impl->EnqueueClose(id);
}

}  // namespace Orvane::PDF
