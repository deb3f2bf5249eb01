#pragma once

// A document's form: its fields read from the field tree, filled in through
// MuPDF's form functions (which run the document's scripts), reset, and
// flattened into page content. Document thread only.

#include <mupdf/pdf.h>

#include <string>
#include <vector>

#include "orvane/pdf/Document.h"
#include "orvane/pdf/IFormProvider.h"

namespace Orvane::PDF::Pdfium {

class PdfDocument;

// A field tree nested deeper than this is cut there.
constexpr int kMaxFieldDepth = 32;
// A form with more nodes than this is cut there.
constexpr size_t kMaxFieldNodes = 200'000;

// A rectangle with x0 <= x1 and y0 <= y1 (a widget's /Rect may give its corners in any order).
inline fz_rect normalized(fz_rect r) {
    return fz_make_rect(fz_min(r.x0, r.x1), fz_min(r.y0, r.y1), fz_max(r.x0, r.x1), fz_max(r.y0, r.y1));
}

// ---- reading (Form.cpp) ----

// A terminal field of the tree: the node holding its value and the widgets
// (the node itself when it has no kids). Objects are borrowed from the document.
struct FieldNode {
    std::string name;
    pdf_obj* field = nullptr;
    std::vector<pdf_obj*> widgets;
};

// The terminal fields in tree order (depth first), loops and absurd depths cut.
std::vector<FieldNode> WalkFields(fz_context* ctx, pdf_document* doc);
// Every field with its values, flags and widgets.
std::vector<FormField> ReadFormFields(const IDocument& document);
// The field's record (widget pages looked up in pageOf: object number -> page).
FormField ReadField(fz_context* ctx, pdf_document* doc, const FieldNode& node, const std::vector<int>& calculation,
                    const std::vector<std::pair<int, int>>& pageOf);
// Object number -> page index of every annotation listed by a page.
std::vector<std::pair<int, int>> AnnotationPages(fz_context* ctx, pdf_document* doc);

// ---- changes (FormFill.cpp): each returns whether a field's value changed ----

bool SetFieldValue(IDocument& document, const std::string& name, const std::string& value);
bool SelectFieldOptions(IDocument& document, const std::string& name, const std::vector<std::string>& values);
bool SetFieldChecked(IDocument& document, const std::string& name, bool checked);
bool ResetFormFields(IDocument& document, const std::vector<std::string>& names);

// ---- flattening (FormFlatten.cpp) ----

// Returns whether the document had a form.
bool FlattenForm(IDocument& document);

// ---- scripts (FormScripts.cpp; the gate every form script passes, ScriptGate.cpp) ----

// Logs a script that is not run, once per script text.
void LogRefusedScript(const char* name, const std::string& source, const std::string& why) noexcept;
// Forgets the scripts counted as running on this thread.
void ResetScriptNesting() noexcept;
// The document whose scripts this thread runs now and the field being
// changed (empty for none), for naming scripts in the log; null for none.
void SetScriptSubject(fz_context* ctx, pdf_document* doc, const std::string& field) noexcept;

// Turns the document's scripts on (once; document-level scripts run then),
// with alerts and the other requests to the application made inert. When a
// document-level script is not one that surely ends, scripts stay off.
void EnableScripts(fz_context* ctx, pdf_document* doc);
// Collects what scripts tell the user (alerts) while it exists; the
// outermost one starts the count of nested scripts afresh. The document and
// the field being changed name the scripts that are not run in the log.
class ScriptMessages {
public:
    ScriptMessages(fz_context* ctx, pdf_document* doc, const std::string& field);
    ~ScriptMessages();
    ScriptMessages(const ScriptMessages&) = delete;
    ScriptMessages& operator=(const ScriptMessages&) = delete;
    // The last alert, empty when none.
    const std::string& Last() const { return last_; }
    void Collect(const char* message) { last_ = message; }

private:
    std::string last_;
    ScriptMessages* outer_;
};

}  // namespace Orvane::PDF::Pdfium
