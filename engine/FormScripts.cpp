// The document's scripts. MuPDF runs them with its JavaScript interpreter
// once pdf_enable_js was called for the document; what a script asks of the
// application (alerts, printing, mail, opening an address, menu items) comes
// back as document events. Here alerts are collected as the message of a
// refused value and every other request is dropped, so that scripts reach
// neither the application nor anything outside the document.
//
// Scripts are turned on only where the engine can stop one at the request's
// time budget (ScriptsCanBeStopped, ScriptLimits.c); elsewhere a form is
// filled in without them.

#include <atomic>
#include <exception>

#include "engine/Form.h"
#include "engine/Guarded.h"

extern "C" {
// ScriptLimits.c: whether a running script can be stopped at the time budget,
// and how many were.
int quirelle_scripts_can_be_stopped(void);
unsigned long quirelle_scripts_stopped(void);
}

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

}  // namespace

ScriptMessages::ScriptMessages() : outer_(sink), stoppedBefore_(quirelle_scripts_stopped()) {
    sink = this;
}

ScriptMessages::~ScriptMessages() {
    sink = outer_;
}

bool ScriptMessages::Stopped() const {
    return quirelle_scripts_stopped() != stoppedBefore_;
}

void EnableScripts(fz_context* ctx, pdf_document* doc) {
    if (doc->js) return;
    guarded(ctx, [&] { pdf_set_doc_event_callback(ctx, doc, onDocumentEvent, NULL, NULL); });
    if (!quirelle_scripts_can_be_stopped()) return;
    guarded(ctx, [&] { pdf_enable_js(ctx, doc); });
    // The interpreter this one made may be one whose scripts cannot be stopped.
    if (!quirelle_scripts_can_be_stopped()) guarded(ctx, [&] { pdf_disable_js(ctx, doc); });
}

}  // namespace Orvane::PDF::Pdfium
