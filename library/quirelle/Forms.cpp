// Form fields: listed, filled in, reset and flattened through one queue,
// served right after rotation, so that a list asked for after a change sees
// it. A request that changed a field's value calls the document's
// form-change callback once, on the worker, after the engine work.

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/Form.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

void Impl::ChangeForm(const int64_t& id, const std::function<bool(IDocument&)>& change) {
    const std::shared_ptr<IDocument> document = OpenDocumentOf(id);
    bool changed = false;
    {
        const Pdfium::SoleUse sole;
        changed = change(*document);
    }
    if (!changed) return;
    auto* pdf = dynamic_cast<Pdfium::PdfDocument*>(document.get());
    const std::function<void()> callback = pdf ? pdf->FormOnChangeHandler() : nullptr;
    if (!callback) return;
    try {
        callback();
    } catch (const std::exception& e) {
        QUIRELLE_LOG(ERROR) << "The form-change callback failed: " << e.what();
    } catch (...) {
        QUIRELLE_LOG(ERROR) << "The form-change callback failed";
    }
}

std::future<std::vector<FormField>> Quirelle::GetFormFields(const int64_t& id) {
    return impl->EnqueueWithDocument<std::vector<FormField>>(
        impl->formQueue, id, [](IDocument& document) { return Pdfium::ReadFormFields(document); });
}

std::future<void> Quirelle::SetFieldValue(const int64_t& id, const std::string& name, const std::string& value) {
    return impl->EnqueueDocumentWork<void>(impl->formQueue, id, [name, value](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SetFieldValue(d, name, value); });
    });
}

std::future<void> Quirelle::SelectFieldOptions(const int64_t& id, const std::string& name,
                                               const std::vector<std::string>& values) {
    return impl->EnqueueDocumentWork<void>(impl->formQueue, id, [name, values](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SelectFieldOptions(d, name, values); });
    });
}

std::future<void> Quirelle::SetFieldChecked(const int64_t& id, const std::string& name, bool checked) {
    return impl->EnqueueDocumentWork<void>(impl->formQueue, id, [name, checked](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SetFieldChecked(d, name, checked); });
    });
}

std::future<void> Quirelle::ResetFormFields(const int64_t& id, const std::vector<std::string>& names) {
    return impl->EnqueueDocumentWork<void>(impl->formQueue, id, [names](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::ResetFormFields(d, names); });
    });
}

std::future<void> Quirelle::FlattenForm(const int64_t& id) {
    return impl->EnqueueDocumentWork<void>(impl->formQueue, id, [](Impl& i, int64_t doc) {
        // The values stay as they were: no form-change callback.
        i.ChangeForm(doc, [](IDocument& d) {
            Pdfium::FlattenForm(d);
            return false;
        });
    });
}

bool Quirelle::IsFillFormProtected(const int64_t& id) {
    return impl->WithOpenDocument(id, [](IDocument& document) {
        const auto* pdf = dynamic_cast<const Pdfium::PdfDocument*>(&document);
        return pdf != nullptr && pdf->IsFillFormProtected();
    });
}

}  // namespace Orvane::PDF
