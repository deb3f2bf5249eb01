// A page's annotations: listed, created, changed and deleted on the worker,
// all through one queue served right after rotation, so a list asked for
// after a change sees it.

#include "engine/Annotations.h"

#include <utility>

#include "QuirelleImpl.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

std::future<std::vector<Annotation>> Quirelle::GetAnnotations(const int64_t& id, unsigned page) {
    return impl->EnqueueWithDocument<std::vector<Annotation>>(
        impl->annotationQueue, id, [page](IDocument& document) { return Pdfium::ListAnnotations(document, page); });
}

std::future<int64_t> Quirelle::CreateAnnotation(const int64_t& id, unsigned page, const NewAnnotation& annotation) {
    return impl->EnqueueWithDocument<int64_t>(impl->annotationQueue, id, [page, annotation](IDocument& document) {
        return Pdfium::CreateAnnotation(document, page, annotation);
    });
}

std::future<void> Quirelle::ChangeAnnotation(const int64_t& id, unsigned page, int64_t annotation,
                                             const AnnotationChange& change) {
    return impl->EnqueueWithDocument<void>(impl->annotationQueue, id, [page, annotation, change](IDocument& document) {
        Pdfium::ChangeAnnotation(document, page, annotation, change);
    });
}

std::future<void> Quirelle::DeleteAnnotation(const int64_t& id, unsigned page, int64_t annotation) {
    return impl->EnqueueWithDocument<void>(impl->annotationQueue, id, [page, annotation](IDocument& document) {
        Pdfium::DeleteAnnotation(document, page, annotation);
    });
}

bool Quirelle::IsAnnotateProtected(const int64_t& id) {
    return impl->WithOpenDocument(id, [](IDocument& document) {
        const auto* pdf = dynamic_cast<const Pdfium::PdfDocument*>(&document);
        return pdf != nullptr && pdf->IsAnnotateProtected();
    });
}

}  // namespace Orvane::PDF
