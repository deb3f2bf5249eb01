#include "engine/Context.h"

#include <glog/logging.h>
#include <mupdf/fitz.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "engine/EngineState.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"

namespace Orvane::PDF::Pdfium {
namespace {

// diagnostics, not errors of the caller's.
void logWarning(void*, const char* message) {
    VLOG(1) << "engine: " << message;
}
void logError(void*, const char* message) {
    VLOG(1) << "engine error: " << message;
}

// ---- the base context and the threads' clones ----

std::mutex baseMutex;
fz_context* baseContext = nullptr;  // guarded by baseMutex
int baseUsers = 0;                  // threads holding a clone and documents; guarded by baseMutex

struct ThreadContext {
    fz_context* ctx = nullptr;
    int initCalls = 0;
};
thread_local ThreadContext threadContext;

fz_context* makeBaseContext() {
    fz_context* ctx = fz_new_context(&allocator, &locks, kStoreSize);
    if (ctx == nullptr) throw std::runtime_error("cannot create the PDF engine's context");
    fz_set_warning_callback(ctx, logWarning, nullptr);
    fz_set_error_callback(ctx, logError, nullptr);
    // Registering handlers and installing the font loader allocate; a failure
    // there leaves a context that cannot open anything, so give it up.
    try {
        guarded(ctx, [&] {
            fz_register_document_handlers(ctx);
            installSystemFontLoader(ctx);
        });
    } catch (const std::exception& e) {
        fz_drop_context(ctx);
        throw std::runtime_error(std::string("cannot initialise the PDF engine: ") + e.what());
    }
    return ctx;
}

}  // namespace

bool threadHoldsContext() {
    return threadContext.ctx != nullptr;
}

PdfiumInitializer& PdfiumInitializer::Instance() {
    static PdfiumInitializer instance;
    return instance;
}

void PdfiumInitializer::InitLibrary() {
    if (threadContext.initCalls++ > 0) return;
    readEnvironment();
    joinEngineUsers();
    std::lock_guard<std::mutex> lock(baseMutex);
    try {
        if (baseContext == nullptr) baseContext = makeBaseContext();
        fz_context* clone = fz_clone_context(baseContext);
        if (clone == nullptr) throw std::runtime_error("cannot clone the PDF engine's context");
        threadContext.ctx = clone;
        ++baseUsers;
    } catch (...) {
        threadContext.initCalls = 0;
        if (baseUsers == 0 && baseContext != nullptr) {
            fz_drop_context(std::exchange(baseContext, nullptr));
        }
        leaveEngineUsers();
        throw;
    }
}

void PdfiumInitializer::Uninitialize() {
    if (threadContext.initCalls == 0 || --threadContext.initCalls > 0) return;
    fz_drop_context(std::exchange(threadContext.ctx, nullptr));
    {
        std::lock_guard<std::mutex> lock(baseMutex);
        if (--baseUsers == 0) fz_drop_context(std::exchange(baseContext, nullptr));
    }
    leaveEngineUsers();
}
EngineReference::EngineReference() {
    std::lock_guard<std::mutex> lock(baseMutex);
    if (baseContext == nullptr) throw std::logic_error("the PDF engine is not initialised");
    ++baseUsers;
}

EngineReference::~EngineReference() {
    std::lock_guard<std::mutex> lock(baseMutex);
    if (--baseUsers == 0) fz_drop_context(std::exchange(baseContext, nullptr));
}

ScopedContext::ScopedContext() {
    PdfiumInitializer::Instance().InitLibrary();
    ctx_ = threadContext.ctx;
}

ScopedContext::~ScopedContext() {
    PdfiumInitializer::Instance().Uninitialize();
}

fz_context* CurrentContext() {
    if (threadContext.ctx == nullptr) {
        throw std::logic_error("the PDF engine is not initialised on this thread");
    }
    return threadContext.ctx;
}
}  // namespace Orvane::PDF::Pdfium
