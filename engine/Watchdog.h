#pragma once

// Time budgets for engine work. MuPDF's interpreter checks a cookie's abort
// flag as it runs a page; one watchdog thread per process sets that flag when
// a registered cookie outlives its deadline, so a hostile page cannot hold a
// worker forever.

#include <mupdf/fitz.h>

#include <chrono>

namespace Orvane::PDF::Pdfium {

// How long one run over a page's content may take (rendering, reading its
// text, listing its objects): the engine's time budget (TimeBudget()).
std::chrono::milliseconds PageTimeBudget();

// Watches cookie from construction to destruction; a budget of zero or less
// has expired at once. Inside a RequestBudget the cookie is aborted at the
// request's deadline at the latest.
class Deadline {
public:
    Deadline(fz_cookie& cookie, std::chrono::milliseconds budget);
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    // Whether the watchdog aborted the work.
    bool Expired() const;

private:
    fz_cookie& cookie_;
    std::chrono::steady_clock::time_point when_;
    bool expired_ = false;  // guarded by the watchdog's mutex once registered
    bool registered_ = false;
};

}  // namespace Orvane::PDF::Pdfium
