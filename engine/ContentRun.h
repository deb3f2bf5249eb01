#pragma once

// Running a page's content (drawing it, recording it, reading its text,
// listing its objects) under the request's limits. MuPDF is given a cookie,
// so that it counts a failing operator and goes on instead of throwing (a
// damaged page shows what it can); the cookie is watched by a deadline, so
// that the watchdog aborts a page that would run without end; and what the
// limits refused meanwhile is noted, since MuPDF carries on past it.

#include <mupdf/fitz.h>

#include <chrono>
#include <exception>
#include <optional>

#include "engine/Context.h"
#include "engine/Watchdog.h"

namespace Orvane::PDF::Pdfium {

// How one run over page content ended.
struct ContentRun {
    bool expired = false;  // the deadline aborted it
    // The limits cut the run short where MuPDF carries on: what it made
    // lacks some of what it should hold.
    bool workRefused = false;
    bool shortOfMemory = false;
    int errors = 0;              // operators that failed and were passed over
    std::exception_ptr failure;  // what body threw
};

// Runs body(cookie) under a deadline of budget. body hands the cookie to
// every MuPDF call that runs the content.
template <class Body>
ContentRun RunContent(std::chrono::milliseconds budget, Body&& body) noexcept {
    ContentRun result;
    fz_cookie cookie{};
    std::optional<Deadline> deadline;
    const RunLimits limits;
    try {
        deadline.emplace(cookie, budget);
        body(cookie);
    } catch (...) {
        result.failure = std::current_exception();
    }
    result.expired = deadline && deadline->Expired();
    result.workRefused = limits.WorkRefused();
    result.shortOfMemory = limits.ShortOfMemory();
    result.errors = cookie.errors;
    return result;
}

}  // namespace Orvane::PDF::Pdfium
