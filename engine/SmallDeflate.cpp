// MuPDF compresses each stream it writes uncompressed with zlib's compress(),
// which sets up the full 32 KiB window and its tables (about 256 KiB, the
// hash table cleared) for every stream: for the short content streams of a
// typical page that setup is most of the work. The engine is linked through
// this function (-Wl,--wrap=compress, see CMakeLists.txt): a short stream is
// compressed with a window just large enough to reach back over all of it,
// the same level and strategy; a long one goes to zlib's compress() as is.
// A stream under kTiny bytes (the appearance of a form field, a page that
// says one line) is stored: for it deflate's work is almost all building
// the Huffman tables of its one block, ten times the cost of storing it, and
// compression would save it a few bytes at best. Either way the result is an
// ordinary zlib stream.

#include <zlib.h>

#include <climits>

namespace {

// Inputs from this size on get the default window (32 KiB).
constexpr uLong kShort = 16 * 1024;
// Inputs under this size are stored (zlib's level 0).
constexpr uLong kTiny = 64;
// zlib keeps this much of the window for look-ahead.
constexpr uLong kLookAhead = 262;

}  // namespace

extern "C" {
int __real_compress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen);

// Visible: a shared library linked into the same program (an image codec)
// may call compress() too, and the wrapping then names this function for it.
__attribute__((visibility("default"))) int __wrap_compress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    if (sourceLen >= kShort || *destLen > UINT_MAX) return __real_compress(dest, destLen, source, sourceLen);
    int windowBits = 9;  // zlib's smallest window for a zlib stream
    while (windowBits < MAX_WBITS && (uLong(1) << windowBits) < sourceLen + kLookAhead) ++windowBits;
    // The hash table and the symbol buffer scale with the window, as zlib's
    // defaults do (8 for a 32 KiB window).
    const int memLevel = windowBits - 7;
    z_stream stream{};
    const int level = sourceLen < kTiny ? Z_NO_COMPRESSION : Z_DEFAULT_COMPRESSION;
    int err = deflateInit2(&stream, level, Z_DEFLATED, windowBits, memLevel, Z_DEFAULT_STRATEGY);
    if (err != Z_OK) return err;
    stream.next_in = const_cast<Bytef*>(source);
    stream.avail_in = uInt(sourceLen);
    stream.next_out = dest;
    const uLongf room = *destLen;
    stream.avail_out = uInt(room);
    err = deflate(&stream, Z_FINISH);
    *destLen = stream.total_out;
    deflateEnd(&stream);
    if (err == Z_STREAM_END) return Z_OK;
    // Out of room: the caller sized dest for zlib's default window, and the
    // short window's smaller blocks add more framing to data that does not
    // compress (a font, an image under no filter). zlib's own call fits.
    if (err == Z_OK) {
        *destLen = room;
        return __real_compress(dest, destLen, source, sourceLen);
    }
    return err;
}
}
