#pragma once

// Limits on what the PDF engine may spend on one request. They hold for every
// Quirelle of the process; a request that starts after SetEngineLimits uses
// the new values.
//
// Before the first use the environment may replace the defaults:
// QUIRELLE_TIME_BUDGET_MS, QUIRELLE_MEMORY_LIMIT_MB and QUIRELLE_PAGE_CACHE_MB
// (read once).

#include <chrono>
#include <cstddef>

#include "orvane/Export.h"

namespace Orvane::PDF {

struct EngineLimits {
    // How long one request may hold the worker, every engine call included.
    // Past it a render answers a null image and any other request fails with
    // Orvane::Exception; the worker goes on and the document stays usable.
    std::chrono::milliseconds timeBudget{5000};
    // What the engine may allocate at once, over all documents.
    std::size_t memoryLimitBytes = std::size_t(1) << 30;
    // Memory for recorded pages kept for redrawing; 0 turns the cache off.
    std::size_t pageCacheBytes = std::size_t(64) << 20;
};

QUIRELLE_EXPORT void SetEngineLimits(const EngineLimits& limits);
QUIRELLE_EXPORT EngineLimits GetEngineLimits();

}  // namespace Orvane::PDF
