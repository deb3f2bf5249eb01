#pragma once

// Pictures written to files. PNG goes through libpng at a chosen zlib level,
// JPEG through Qt. Every picture is written to a new file beside its target
// and renamed into place, so that whoever looks at the target sees the old
// file or the whole new one; a run cut short by a signal removes the picture
// it was writing.

#include <QImage>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>

namespace QuirelleCli {

// zlib's levels: 1 is fastest, 9 smallest. On manuals at 150 dpi, 6 writes
// files a seventh smaller than 1 in twice the time, and 9 saves 4 % more in
// five times the time.
constexpr int kDefaultPngLevel = 6;

struct PictureOptions {
    bool jpeg = false;  // else PNG
    int pngLevel = kDefaultPngLevel;
    int jpegQuality = 90;
};

// Writes image as a PNG file to out: 8-bit grey when every pixel is grey,
// else RGB, with an alpha channel only when the image has one. false when
// libpng or the file fails.
bool WritePng(const QImage& image, int level, std::FILE* out);

// Writes image to target as options say, through a new file beside it.
// Throws Failure naming target.
void SavePicture(const QImage& image, const std::filesystem::path& target, const PictureOptions& options);

// A picture drawn in horizontal strips: strips(top, rows) gives the rows
// from top on, the picture's whole width; it may throw, and then nothing is
// written. A strip holds about kStripBytes of pixels.
using Strips = std::function<QImage(int top, int rows)>;
constexpr std::size_t kStripBytes = std::size_t(1) << 20;

// As WritePng of the whole picture, the same bytes, with only a strip of it
// in memory at a time. A picture that shows colour below its top strip is
// drawn twice: its file is begun in grey, and begun again in colour at the
// first strip with colour. false when a strip is not of the size asked, or
// libpng or the file fails.
bool WritePngInStrips(int width, int height, int level, const Strips& strips, std::FILE* out);

// As SavePicture of the whole picture as PNG, drawn strip by strip.
void SavePngInStrips(int width, int height, const Strips& strips, const std::filesystem::path& target, int level);

// Makes SIGINT, SIGTERM and SIGHUP remove the picture SavePicture is writing
// before the process ends as the signal says (unless the process ignores the
// signal).
void RemovePartialPictureOnSignal();

}  // namespace QuirelleCli
