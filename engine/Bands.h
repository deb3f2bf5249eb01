#pragma once

// Band-parallel drawing: a large picture is cut into horizontal bands that
// helper threads draw at the same time from one display list, each with a
// clone of the caller's context, straight into the caller's memory.
//
// A band's rasteriser clips every edge at the band's top and bottom, and an
// edge clipped there steps a little differently from the whole edge, so a
// seam through a curve or a slanted line would change a few pixels next to
// it. Seams are therefore placed only on rows that nothing at risk crosses
// (SeamObstacle); a picture without such rows is drawn in one piece.

#include <mupdf/fitz.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "engine/DisplayListCache.h"

namespace Orvane::PDF::Pdfium {

// What in the recording a seam must not cross, in recording space. Throws
// the engine's exceptions.
// glyphs counts the glyphs of the text drawn.
std::vector<SeamObstacle> FindSeamObstacles(fz_context* ctx, fz_display_list* list, size_t& glyphs);

// The first rows of the bands after the first (ascending) for a picture of
// height rows whose row y shows recording-space y = top + y / scaleY, cut
// into at most bands bands of about equal height; empty when no seam is
// safe. textScale is the picture's larger scale, which sizes the glyphs.
std::vector<int> ChooseSeams(const std::vector<SeamObstacle>& obstacles, float top, float scaleY, float textScale,
                             int height, int bands);

// How many pictures were drawn by more than one thread so far.
size_t PicturesSharedOut();
// Band drawing on or off (on by default), for comparisons.
void SetBandDrawing(bool on);
bool BandDrawing();

// The helper threads, one per core beyond the first, started on first use.
class BandPool {
public:
    static BandPool& Instance();
    int Helpers() const { return static_cast<int>(threads_.size()); }

    // Calls draw(band, context) once for every band in [0, count): on the
    // calling thread with ctx, and at the same time on idle helper threads,
    // each with its own clone of ctx. Returns when every band is drawn.
    // draw must not throw.
    void Run(fz_context* ctx, int count, const std::function<void(int, fz_context*)>& draw);

    ~BandPool();
    BandPool(const BandPool&) = delete;
    BandPool& operator=(const BandPool&) = delete;

private:
    struct Batch;
    BandPool();
    void Serve();

    std::mutex mutex_;
    std::condition_variable wake_;      // work queued or stopping
    std::condition_variable finished_;  // a helper left a batch
    std::deque<Batch*> queue_;          // guarded by mutex_
    bool stopping_ = false;             // guarded by mutex_
    std::vector<std::thread> threads_;
};

}  // namespace Orvane::PDF::Pdfium
