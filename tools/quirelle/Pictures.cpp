// Pictures written to files: a PNG encoder on libpng, JPEG through Qt, and
// the new-file-then-rename that puts each in place.

#include "Pictures.h"

#include <png.h>
#include <unistd.h>

#include <QFile>
#include <QImageWriter>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <vector>

#include "Cli.h"

namespace QuirelleCli {

namespace {

bool AllGrey(const QImage& image) {
    for (int y = 0; y < image.height(); ++y) {
        const QRgb* row = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = row[x];
            if (qRed(pixel) != qGreen(pixel) || qGreen(pixel) != qBlue(pixel)) return false;
        }
    }
    return true;
}

// The path of the picture being written, for the signal handler: set before
// the file is made, cleared once it is renamed.
char partialPath[4096];
std::atomic<bool> partialPending{false};

void OnSignal(int signal) {
    if (partialPending.load()) unlink(partialPath);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

}  // namespace

namespace {

// One PNG file through libpng, its header first and then its rows in order.
// libpng reports its errors by longjmp back to the setjmp of the call that
// failed: nothing in those frames has a destructor, and nothing set before
// setjmp changes after it. Once a call failed, the others do nothing.
class PngEncoder {
public:
    PngEncoder() {
        png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        info_ = png_ ? png_create_info_struct(png_) : nullptr;
        failed_ = info_ == nullptr;
    }
    ~PngEncoder() { png_destroy_write_struct(&png_, &info_); }
    PngEncoder(const PngEncoder&) = delete;
    PngEncoder& operator=(const PngEncoder&) = delete;

    // Rows are then 8-bit grey bytes when grey, else 0xAARRGGBB words in
    // native order (the alpha byte ignored unless alpha).
    bool Begin(int width, int height, bool grey, bool alpha, int level, std::FILE* out) {
        if (failed_ || setjmp(png_jmpbuf(png_))) return Fail();
        png_init_io(png_, out);
        png_set_compression_level(png_, level);
        // No prediction filter: on drawn pages (flat areas, anti-aliased text
        // and rules) every filter, and the adaptive choice too, makes the
        // files larger and slower to write (bench/PngBench.cpp, on manuals).
        png_set_filter(png_, PNG_FILTER_TYPE_BASE, PNG_FILTER_NONE);
        png_set_IHDR(png_, info_, width, height, 8,
                     grey    ? PNG_COLOR_TYPE_GRAY
                     : alpha ? PNG_COLOR_TYPE_RGB_ALPHA
                             : PNG_COLOR_TYPE_RGB,
                     PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
        png_write_info(png_, info_);
        if (!grey) {
            // From 0xAARRGGBB words to R G B (A) bytes.
            if (Q_BYTE_ORDER == Q_LITTLE_ENDIAN) {
                png_set_bgr(png_);
                if (!alpha) png_set_filler(png_, 0, PNG_FILLER_AFTER);
            } else {
                png_set_swap_alpha(png_);
                if (!alpha) png_set_filler(png_, 0, PNG_FILLER_BEFORE);
            }
        }
        return true;
    }
    bool Row(const void* row) {
        if (failed_ || setjmp(png_jmpbuf(png_))) return Fail();
        png_write_row(png_, static_cast<png_const_bytep>(row));
        return true;
    }
    bool End() {
        if (failed_ || setjmp(png_jmpbuf(png_))) return Fail();
        png_write_end(png_, nullptr);
        return true;
    }

private:
    bool Fail() {
        failed_ = true;
        return false;
    }
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
    bool failed_ = false;
};

void GreyRow(const QImage& image, int y, png_byte* out) {
    const QRgb* pixels = reinterpret_cast<const QRgb*>(image.constScanLine(y));
    for (int x = 0; x < image.width(); ++x) out[x] = static_cast<png_byte>(qRed(pixels[x]));
}

bool Finished(std::FILE* out) { return std::fflush(out) == 0 && std::ferror(out) == 0; }

}  // namespace

bool WritePng(const QImage& source, int level, std::FILE* out) {
    // 32 bits per pixel, 0xAARRGGBB in native order, alpha not premultiplied.
    const QImage image =
        source.convertToFormat(source.hasAlphaChannel() ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    if (image.isNull()) return false;
    const bool alpha = image.hasAlphaChannel();
    const bool grey = !alpha && AllGrey(image);
    PngEncoder png;
    bool written = png.Begin(image.width(), image.height(), grey, alpha, level, out);
    std::vector<png_byte> row(grey ? image.width() : 0);
    for (int y = 0; written && y < image.height(); ++y) {
        if (grey) GreyRow(image, y, row.data());
        written = png.Row(grey ? static_cast<const void*>(row.data()) : image.constScanLine(y));
    }
    return written && png.End() && Finished(out);
}

bool WritePngInStrips(int width, int height, int level, const Strips& strips, std::FILE* out) {
    const int rows = std::max(1, std::min(height, int(kStripBytes / (4 * size_t(width)))));
    std::vector<png_byte> row(width);
    // Written grey until a strip shows colour; then again from the top, in
    // colour, over what was written.
    for (bool grey : {true, false}) {
        PngEncoder png;
        if (!png.Begin(width, height, grey, false, level, out)) return false;
        bool colour = false;
        for (int top = 0; top < height && !colour; top += rows) {
            const int count = std::min(rows, height - top);
            const QImage strip = strips(top, count).convertToFormat(QImage::Format_RGB32);
            if (strip.width() != width || strip.height() != count) return false;
            colour = grey && !AllGrey(strip);
            for (int y = 0; y < count && !colour; ++y) {
                if (grey) GreyRow(strip, y, row.data());
                if (!png.Row(grey ? static_cast<const void*>(row.data()) : strip.constScanLine(y))) return false;
            }
        }
        if (!colour) return png.End() && Finished(out);
        if (std::fflush(out) != 0 || ftruncate(fileno(out), 0) != 0 || std::fseek(out, 0, SEEK_SET) != 0) {
            return false;
        }
    }
    return false;
}

namespace {

// Runs write on a new file beside target and renames it into place; the new
// file goes when write fails or throws. Throws Failure naming target.
void WriteBeside(const fs::path& target, const std::function<bool(int fd, int& error)>& write) {
    const fs::path directory = target.has_parent_path() ? target.parent_path() : fs::path(".");
    const std::string partial = (directory / ("." + target.filename().string() + ".XXXXXX")).string();
    if (partial.size() >= sizeof partialPath) throw Failure(target.string() + ": the file name is too long");
    std::memcpy(partialPath, partial.c_str(), partial.size() + 1);
    partialPending = true;
    const int fd = mkstemp(partialPath);
    if (fd < 0) {
        partialPending = false;
        throw Failure(target.string() + ": cannot write the file: " + std::strerror(errno));
    }
    int error = 0;
    bool written = false;
    try {
        written = write(fd, error);  // closes fd
    } catch (...) {
        unlink(partialPath);
        partialPending = false;
        throw;
    }
    if (!written || rename(partialPath, target.c_str()) != 0) {
        if (written) error = errno;
        unlink(partialPath);
        partialPending = false;
        throw Failure(target.string() + ": cannot write the file" +
                      (error ? ": " + std::string(std::strerror(error)) : ""));
    }
    partialPending = false;
}

// Runs write on a stdio stream over fd, and closes it.
bool WriteStream(int fd, int& error, const std::function<bool(std::FILE*)>& write) {
    std::FILE* out = fdopen(fd, "wb");
    if (out == nullptr) {
        error = errno;
        close(fd);
        return false;
    }
    bool written = false;
    try {
        written = write(out);
    } catch (...) {
        std::fclose(out);
        throw;
    }
    error = errno;
    return std::fclose(out) == 0 && written;
}

}  // namespace

void SavePicture(const QImage& image, const fs::path& target, const PictureOptions& options) {
    WriteBeside(target, [&](int fd, int& error) {
        if (!options.jpeg) {
            return WriteStream(fd, error, [&](std::FILE* out) { return WritePng(image, options.pngLevel, out); });
        }
        bool written = false;
        QFile file;
        if (file.open(fd, QIODevice::WriteOnly, QFileDevice::DontCloseHandle)) {
            QImageWriter writer(&file, "jpg");
            writer.setQuality(options.jpegQuality);
            written = writer.write(image) && file.flush();
        }
        error = errno;
        return close(fd) == 0 && written;
    });
}

void SavePngInStrips(int width, int height, const Strips& strips, const fs::path& target, int level) {
    WriteBeside(target, [&](int fd, int& error) {
        return WriteStream(fd, error,
                           [&](std::FILE* out) { return WritePngInStrips(width, height, level, strips, out); });
    });
}

void RemovePartialPictureOnSignal() {
    // A signal the process was started to ignore (SIGINT for a command run
    // in the background, SIGHUP under nohup) stays ignored.
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        if (std::signal(signal, OnSignal) == SIG_IGN) std::signal(signal, SIG_IGN);
    }
}

}  // namespace QuirelleCli
