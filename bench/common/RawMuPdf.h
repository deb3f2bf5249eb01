#pragma once

// Plain MuPDF, the baseline every benchmark compares the service with: one
// fz_context of its own (MuPDF's default allocator, the same store size as the
// engine) used from one thread. Without locks, as a program that uses MuPDF
// from one thread only may run it; withLocks installs std::mutex locking
// callbacks like the ones every multi-threaded user of MuPDF (the engine
// included) needs, to show what they cost.

#include <benchmark/benchmark.h>

#include <QImage>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/Handles.h"

namespace QuirelleBench {

// Page size in pixels at dpi: the page as displayed (rotation applied), as
// both MuPDF's bounds and the service's page size give it.
struct PixelSize {
    int width = 0;
    int height = 0;
};
PixelSize PixelsAt(double widthPoints, double heightPoints, double dpi);

struct RawLocks;
class RawMuPdf {
public:
    explicit RawMuPdf(bool withLocks);
    ~RawMuPdf();
    RawMuPdf(const RawMuPdf&) = delete;
    RawMuPdf& operator=(const RawMuPdf&) = delete;

    // Opens a file and answers its number for the calls below. Throws on failure.
    size_t Open(const std::string& path);
    void Close(size_t document);
    int PageCount(size_t document);
    // The page's size in pixels at dpi, from fz_bound_page.
    PixelSize PageSize(size_t document, unsigned page, double dpi);

    // Loads the page, bounds it, wraps the given memory (BGRA, 4 bytes a
    // pixel) in a pixmap, clears it to white and runs the page through a draw
    // device scaled so that the page covers the whole picture. The page is
    // dropped afterwards.
    void Render(size_t document, unsigned page, unsigned char* bits, int width, int height, int stride);
    void Render(size_t document, unsigned page, QImage& picture);

private:
    using DocumentHandle = Orvane::PDF::Pdfium::Handle<fz_document, fz_drop_document>;
    std::unique_ptr<RawLocks> locks_;  // outlives the context that calls it
    fz_context* ctx_ = nullptr;
    std::vector<DocumentHandle> documents_;  // by number; closed ones are empty
};

// One picture's memory, kept and reused from page to page as a careful
// caller of MuPDF keeps it: grows when a larger page comes, never shrinks.
class ReusedBuffer {
public:
    unsigned char* For(int width, int height);

private:
    std::vector<unsigned char> bytes_;
};

// Pixels that are not white.
size_t CountInk(const QImage& picture);
size_t CountInk(const unsigned char* bits, int width, int height, int stride);
// Share (0..1) of pixels whose colour differs between two pictures of one size.
double DifferingShare(const QImage& a, const QImage& b);
double DifferingShare(const QImage& a, const unsigned char* bits, int stride);

// The fastest repetition: on a shared machine the least disturbed one. Added
// to the timed benchmarks as the statistic "min" next to mean, median and stddev.
double Fastest(const std::vector<double>& values);
// The middle repetition (the mean of the two middle ones for an even count).
double Median(std::vector<double> values);

// Registers each (name, body) timed in real time and milliseconds, with
// Fastest as the statistic "min". Returns true, for a static initializer.
bool RegisterTimed(std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>> benchmarks);

}  // namespace QuirelleBench
