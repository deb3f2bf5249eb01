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
#include <csignal>
#include <cstring>
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

// libpng reports its errors by longjmp back to here: nothing in this frame
// has a destructor, and nothing set before setjmp changes after it.
bool Encode(png_structp png, png_infop info, const QImage& image, const bool grey, const int level, png_bytep row,
            std::FILE* out) {
    if (setjmp(png_jmpbuf(png))) return false;
    const bool alpha = image.hasAlphaChannel();
    png_init_io(png, out);
    png_set_compression_level(png, level);
    // No prediction filter: on drawn pages (flat areas, anti-aliased text and
    // rules) every filter, and the adaptive choice too, makes the files larger
    // and slower to write (bench/PngBench.cpp, on manuals).
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_NONE);
    png_set_IHDR(png, info, image.width(), image.height(), 8,
                 grey    ? PNG_COLOR_TYPE_GRAY
                 : alpha ? PNG_COLOR_TYPE_RGB_ALPHA
                         : PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
    png_write_info(png, info);
    if (!grey) {
        // From 0xAARRGGBB words to R G B (A) bytes.
        if (Q_BYTE_ORDER == Q_LITTLE_ENDIAN) {
            png_set_bgr(png);
            if (!alpha) png_set_filler(png, 0, PNG_FILLER_AFTER);
        } else {
            png_set_swap_alpha(png);
            if (!alpha) png_set_filler(png, 0, PNG_FILLER_BEFORE);
        }
    }
    for (int y = 0; y < image.height(); ++y) {
        const QRgb* pixels = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        if (grey) {
            for (int x = 0; x < image.width(); ++x) row[x] = static_cast<png_byte>(qRed(pixels[x]));
            png_write_row(png, row);
        } else {
            png_write_row(png, reinterpret_cast<png_const_bytep>(pixels));
        }
    }
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

bool WritePng(const QImage& source, int level, std::FILE* out) {
    // 32 bits per pixel, 0xAARRGGBB in native order, alpha not premultiplied.
    const QImage image =
        source.convertToFormat(source.hasAlphaChannel() ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    if (image.isNull()) return false;
    const bool grey = !image.hasAlphaChannel() && AllGrey(image);
    std::vector<png_byte> row(grey ? image.width() : 0);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    const bool encoded = info && Encode(png, info, image, grey, level, row.data(), out);
    png_destroy_write_struct(&png, &info);
    return encoded && std::fflush(out) == 0 && std::ferror(out) == 0;
}

void SavePicture(const QImage& image, const fs::path& target, const PictureOptions& options) {
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
    bool written = false;
    int error = 0;
    if (options.jpeg) {
        QFile file;
        if (file.open(fd, QIODevice::WriteOnly, QFileDevice::DontCloseHandle)) {
            QImageWriter writer(&file, "jpg");
            writer.setQuality(options.jpegQuality);
            written = writer.write(image) && file.flush();
        }
        error = errno;
        written = close(fd) == 0 && written;
    } else if (std::FILE* out = fdopen(fd, "wb")) {
        written = WritePng(image, options.pngLevel, out);
        error = errno;
        written = std::fclose(out) == 0 && written;
    } else {
        error = errno;
        close(fd);
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

void RemovePartialPictureOnSignal() {
    // A signal the process was started to ignore (SIGINT for a command run
    // in the background, SIGHUP under nohup) stays ignored.
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        if (std::signal(signal, OnSignal) == SIG_IGN) std::signal(signal, SIG_IGN);
    }
}

}  // namespace QuirelleCli
