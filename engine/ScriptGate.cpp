// Every script MuPDF runs for a form event (field keystroke, format,
// validation and calculation, widget and page actions) passes through here:
// the link wraps pdf_js_execute (-Wl,--wrap, see CMakeLists.txt). A script
// runs only if ScriptRefusal finds that it ends in time bounded by its
// length; any other is not run, as if it did nothing, and logged once.
//
// Scripts can still start scripts: setting a field's value from a script
// runs that field's validation, a calculation can ask for all calculations.
// So the scripts one event sets off are capped too: past kMaxNested, or
// nested deeper than kMaxDepth, the rest are not run.
//
// Document-level scripts run inside MuPDF's pdf_enable_js, which calls
// pdf_js_execute within its own object file, where the wrap does not reach:
// EnableScripts (FormScripts.cpp) checks them before enabling scripts.

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

#include "engine/Form.h"
#include "engine/ScriptCheck.h"

extern "C" {
void __real_pdf_js_execute(pdf_js* js, const char* name, const char* code, char** result);
void __wrap_pdf_js_execute(pdf_js* js, const char* name, const char* code, char** result);
}

namespace Orvane::PDF::Pdfium {
namespace {

constexpr int kMaxDepth = 8;
constexpr int kMaxNested = 1000;
constexpr size_t kMaxLogged = 4096;

thread_local int depth = 0;
thread_local int started = 0;  // scripts run since the outermost one began

struct Subject {
    fz_context* ctx = nullptr;
    pdf_document* doc = nullptr;
    std::string field;
};
thread_local Subject subject;

// The fully qualified name of the field of object num; null when there is none.
// Plain C inside the frame; the error only costs the name.
char* fieldNameOf(fz_context* ctx, pdf_document* doc, int num) {
    pdf_obj* obj = NULL;
    char* name = NULL;
    fz_var(obj);
    fz_var(name);
    fz_try(ctx) {
        obj = pdf_load_object(ctx, doc, num);
        name = pdf_field_name(ctx, obj);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        name = NULL;
    }
    return name;
}

// MuPDF names a script "NUM/PATH" (the object it belongs to, the path to
// it there): the log names the field instead where it can.
std::string describe(const char* name) {
    if (!name) return "?";
    char* end = nullptr;
    const long num = std::strtol(name, &end, 10);
    if (end == name || *end != '/') return name;
    const std::string path(end + 1);
    if (num > 0 && subject.doc) {
        if (char* field = fieldNameOf(subject.ctx, subject.doc, int(num))) {
            std::string text;
            try {
                text = *field ? "of field '" + std::string(field) + "' (" + path + ")" : "";
            } catch (...) {
            }
            fz_free(subject.ctx, field);
            if (!text.empty()) return text;
        }
    }
    if (num == 0 && !subject.field.empty()) return "of field '" + subject.field + "' (" + path + ")";
    return name;
}

}  // namespace

void SetScriptSubject(fz_context* ctx, pdf_document* doc, const std::string& field) noexcept {
    try {
        subject.field = field;
    } catch (...) {
        subject.field.clear();
    }
    subject.ctx = ctx;
    subject.doc = doc;
}

void LogRefusedScript(const char* name, const std::string& source, const std::string& why) noexcept {
    static std::mutex mutex;
    static std::unordered_set<size_t> logged;
    try {
        const size_t key = std::hash<std::string>{}(source);
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (logged.size() >= kMaxLogged || !logged.insert(key).second) return;
        }
        LOG(WARNING) << "form script " << (name ? name : "?") << " not run: it has " << why;
    } catch (...) {
    }
}

namespace {

// Whether the script may run; C++ stays inside (MuPDF's frames are around).
bool mayRun(const char* name, const char* code) noexcept {
    if (!code) return false;
    try {
        const std::string source(code);
        std::string why = ScriptRefusal(source);
        if (why.empty() && depth >= kMaxDepth) why = "scripts nested too deep";
        if (why.empty() && depth > 0 && started >= kMaxNested) why = "too many scripts started by one event";
        if (why.empty()) return true;
        LogRefusedScript(describe(name).c_str(), source, why);
    } catch (...) {
    }
    return false;
}

}  // namespace
}  // namespace Orvane::PDF::Pdfium

void __wrap_pdf_js_execute(pdf_js* js, const char* name, const char* code, char** result) {
    using namespace Orvane::PDF::Pdfium;
    if (!mayRun(name, code)) return;
    if (depth == 0) started = 0;
    ++started;
    // When MuPDF throws through here (a longjmp), depth stays counted up
    // until the request ends (ResetScriptNesting): fewer scripts run, never more.
    ++depth;
    __real_pdf_js_execute(js, name, code, result);
    --depth;
}

void Orvane::PDF::Pdfium::ResetScriptNesting() noexcept {
    depth = 0;
    started = 0;
}
