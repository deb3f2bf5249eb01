#include "engine/Guarded.h"

#include <stdexcept>
#include <string>

#include "engine/Context.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {

void throwCaught(fz_context* ctx, Failure kind) {
    const int code = fz_caught(ctx);
    std::string message = fz_caught_message(ctx);
    // Past the budget every allocation fails: what failed then is the budget.
    if (RequestBudget::Expired()) {
        throw Orvane::Exception("time budget of " + std::to_string(TimeBudget().count()) + " ms exceeded (" + message +
                                ")");
    }
    switch (code) {
        case FZ_ERROR_MEMORY:
            throw Orvane::Exception("out of memory (engine memory limit " + std::to_string(MemoryLimit() >> 20) +
                                    " MiB): " + message);
        case FZ_ERROR_ABORT:
            throw Orvane::Exception("aborted: " + message);
        default:
            if (kind == Failure::File) throw std::runtime_error(message);
            throw Orvane::Exception(message);
    }
}

}  // namespace Orvane::PDF::Pdfium
