// The document's scripts. MuPDF runs them with its JavaScript interpreter
// once pdf_enable_js was called for the document; what a script asks of the
// application (alerts, printing, mail, opening an address, menu items) comes
// back as document events. Here alerts are collected as the message of a
// refused value and every other request is dropped, so that scripts reach
// neither the application nor anything outside the document.
//
// Only scripts that end in time bounded by their length run (ScriptCheck.h):
// form scripts are checked as MuPDF starts them (ScriptGate.cpp), the
// document-level ones, which pdf_enable_js runs at once, here before it.

#include <glog/logging.h>

#include <exception>
#include <string>
#include <vector>

#include "engine/Form.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/ScriptCheck.h"

namespace Orvane::PDF::Pdfium {
namespace {

thread_local ScriptMessages* sink = nullptr;

// Called by MuPDF inside its frames: nothing may escape.
void onDocumentEvent(fz_context* ctx, pdf_document*, pdf_doc_event* event, void*) {
    if (event->type != PDF_DOCUMENT_EVENT_ALERT || sink == nullptr) return;
    pdf_alert_event* alert = pdf_access_alert_event(ctx, event);
    try {
        if (alert && alert->message) sink->Collect(alert->message);
    } catch (...) {
    }
}

// The document-level scripts' sources, in the order MuPDF runs them.
std::vector<std::string> documentScripts(fz_context* ctx, pdf_document* doc) {
    std::vector<std::string> sources;
    PdfObjHandle tree(ctx, guarded(ctx, [&] { return pdf_load_name_tree(ctx, doc, PDF_NAME(JavaScript)); }));
    const int count = guarded(ctx, [&] { return pdf_dict_len(ctx, tree.get()); });
    for (int i = 0; i < count; ++i) {
        char* text = guarded(ctx, [&] {
            pdf_obj* code = pdf_dict_get(ctx, pdf_dict_get_val(ctx, tree.get(), i), PDF_NAME(JS));
            return pdf_load_stream_or_string_as_utf8(ctx, code);
        });
        try {
            sources.emplace_back(text);
        } catch (...) {
            fz_free(ctx, text);
            throw;
        }
        fz_free(ctx, text);
    }
    return sources;
}

}  // namespace

ScriptMessages::ScriptMessages(fz_context* ctx, pdf_document* doc, const std::string& field) : outer_(sink) {
    if (!outer_) {
        ResetScriptNesting();
        SetScriptSubject(ctx, doc, field);
    }
    sink = this;
}

ScriptMessages::~ScriptMessages() {
    sink = outer_;
    if (!outer_) SetScriptSubject(nullptr, nullptr, {});
}

void EnableScripts(fz_context* ctx, pdf_document* doc) {
    if (doc->js) return;
    guarded(ctx, [&] { pdf_set_doc_event_callback(ctx, doc, onDocumentEvent, NULL, NULL); });
    for (const std::string& source : documentScripts(ctx, doc)) {
        const std::string why = ScriptRefusal(source);
        if (!why.empty()) {
            LogRefusedScript("at document level (the document's scripts stay off)", source, why);
            return;
        }
    }
    // A document whose interpreter cannot be made is filled in without scripts.
    try {
        guarded(ctx, [&] { pdf_enable_js(ctx, doc); });
    } catch (const std::exception& e) {
        LOG(WARNING) << "the document's scripts stay off: " << e.what();
    }
}

}  // namespace Orvane::PDF::Pdfium
