// A page's annotations: listed, created, changed and deleted on the worker,
// all through one queue served right after rotation, so a list asked for
// after a change sees it.

#include "engine/Annotations.h"

#include <exception>
#include <type_traits>
#include <utility>

#include "QuirelleImpl.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

namespace {

// The open document (worker), or std::invalid_argument.
std::shared_ptr<IDocument> openDocument(std::shared_ptr<IDocument> document) {
    if (!document) throw std::invalid_argument("Invalid doc handle");
    return document;
}

}  // namespace

template <class Result, class Body>
std::future<Result> Impl::EnqueueAnnotationWork(const int64_t& id, Body body) {
    std::promise<Result> promise;
    std::future<Result> future = promise.get_future();
    std::packaged_task<void(Impl&)> work(
        [id, promise = std::move(promise), body = std::move(body)](Impl& impl) mutable {
            try {
                const std::shared_ptr<IDocument> document = openDocument(impl.FindDocument(id));
                const Pdfium::SoleUse sole;
                if constexpr (std::is_void_v<Result>) {
                    body(*document);
                    promise.set_value();
                } else {
                    promise.set_value(body(*document));
                }
            } catch (...) {
                promise.set_exception(std::current_exception());
            }
        });
    {
        MutexLock lock(queueMutex);
        annotationQueue.Add(queueMutex, {id, std::move(work)});
    }
    Wake();
    return future;
}

void Impl::ServeAnnotationWork() {
    std::optional<AnnotationWork> item = TakeFirst(annotationQueue);
    if (!item) return;
    const Pdfium::RequestBudget budget;
    item->work(*this);
}

std::future<std::vector<Annotation>> Quirelle::GetAnnotations(const int64_t& id, unsigned page) {
    return impl->EnqueueAnnotationWork<std::vector<Annotation>>(
        id, [page](IDocument& document) { return Pdfium::ListAnnotations(document, page); });
}

std::future<int64_t> Quirelle::CreateAnnotation(const int64_t& id, unsigned page, const NewAnnotation& annotation) {
    return impl->EnqueueAnnotationWork<int64_t>(
        id, [page, annotation](IDocument& document) { return Pdfium::CreateAnnotation(document, page, annotation); });
}

std::future<void> Quirelle::ChangeAnnotation(const int64_t& id, unsigned page, int64_t annotation,
                                             const AnnotationChange& change) {
    return impl->EnqueueAnnotationWork<void>(id, [page, annotation, change](IDocument& document) {
        Pdfium::ChangeAnnotation(document, page, annotation, change);
    });
}

std::future<void> Quirelle::DeleteAnnotation(const int64_t& id, unsigned page, int64_t annotation) {
    return impl->EnqueueAnnotationWork<void>(
        id, [page, annotation](IDocument& document) { Pdfium::DeleteAnnotation(document, page, annotation); });
}

bool Quirelle::IsAnnotateProtected(const int64_t& id) {
    return impl->WithOpenDocument(id, [](IDocument& document) {
        const auto* pdf = dynamic_cast<const Pdfium::PdfDocument*>(&document);
        return pdf != nullptr && pdf->IsAnnotateProtected();
    });
}

}  // namespace Orvane::PDF
