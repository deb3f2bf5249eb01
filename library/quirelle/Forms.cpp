// Form fields: listed, filled in, reset and flattened through one queue,
// served right after rotation, so that a list asked for after a change sees
// it. A request that changed a field's value calls the document's
// form-change callback once, on the worker, after the engine work.

#include "engine/Form.h"

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {

using Impl = Quirelle::Impl;

namespace {

std::shared_ptr<IDocument> openDocument(std::shared_ptr<IDocument> document) {
    if (!document) throw std::invalid_argument("Invalid doc handle");
    return document;
}

}  // namespace

template <class Result, class Body>
std::future<Result> Impl::EnqueueForm(const int64_t& id, Body body) {
    auto task = std::make_shared<std::packaged_task<Result()>>([this, id, body] { return body(*this, id); });
    std::future<Result> future = task->get_future();
    {
        MutexLock lock(queueMutex);
        formQueue.Add(queueMutex, {id, [task](Impl&) { (*task)(); }});
    }
    Wake();
    return future;
}

void Impl::ServeFormRequest() {
    std::optional<FormRequest> item = TakeFirst(formQueue);
    if (!item) return;
    const Pdfium::RequestBudget budget;
    item->work(*this);
}

void Impl::ChangeForm(const int64_t& id, const std::function<bool(IDocument&)>& change) {
    const std::shared_ptr<IDocument> document = openDocument(FindDocument(id));
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
    return impl->EnqueueForm<std::vector<FormField>>(id, [](Impl& i, int64_t doc) {
        const std::shared_ptr<IDocument> document = openDocument(i.FindDocument(doc));
        const Pdfium::SoleUse sole;
        return Pdfium::ReadFormFields(*document);
    });
}

std::future<void> Quirelle::SetFieldValue(const int64_t& id, const std::string& name, const std::string& value) {
    return impl->EnqueueForm<void>(id, [name, value](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SetFieldValue(d, name, value); });
    });
}

std::future<void> Quirelle::SelectFieldOptions(const int64_t& id, const std::string& name,
                                               const std::vector<std::string>& values) {
    return impl->EnqueueForm<void>(id, [name, values](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SelectFieldOptions(d, name, values); });
    });
}

std::future<void> Quirelle::SetFieldChecked(const int64_t& id, const std::string& name, bool checked) {
    return impl->EnqueueForm<void>(id, [name, checked](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::SetFieldChecked(d, name, checked); });
    });
}

std::future<void> Quirelle::ResetFormFields(const int64_t& id, const std::vector<std::string>& names) {
    return impl->EnqueueForm<void>(id, [names](Impl& i, int64_t doc) {
        i.ChangeForm(doc, [&](IDocument& d) { return Pdfium::ResetFormFields(d, names); });
    });
}

std::future<void> Quirelle::FlattenForm(const int64_t& id) {
    return impl->EnqueueForm<void>(id, [](Impl& i, int64_t doc) {
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
