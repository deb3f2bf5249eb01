#include "engine/PdfDocument.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/Annotations.h"
#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/Nesting.h"
#include "engine/PageTree.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

namespace fs = std::filesystem;

std::string errorText(int err) {
    return std::strerror(err);
}

// The file must exist, be a regular file and be readable before MuPDF sees it:
// MuPDF's own message for these cases says little.
void checkReadable(const Orvane::ioPath& path) {
    if (path.empty()) throw std::runtime_error("cannot open a document without a path");
    const std::string name = path.utf8string();
    std::error_code ec;
    const fs::file_status status = fs::status(path.path(), ec);
    if (ec || !fs::exists(status)) throw std::runtime_error("cannot open " + name + ": no such file");
    if (!fs::is_regular_file(status)) throw std::runtime_error("cannot open " + name + ": not a regular file");
    const int fd = ::open(path.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot open " + name + ": " + errorText(errno));
    ::close(fd);
}

// The file opened as if it ended after its last "endobj"; NULL when it
// holds none or ends there already. C only.
pdf_document* openUpToLastObject(fz_context* ctx, const char* path) {
    static const char kEnd[] = "endobj";
    const size_t endLength = sizeof kEnd - 1;
    fz_buffer* buffer = fz_read_file(ctx, path);
    fz_stream* stream = NULL;
    pdf_document* doc = NULL;
    fz_var(stream);
    fz_var(doc);
    fz_try(ctx) {
        unsigned char* data = NULL;
        const size_t length = fz_buffer_storage(ctx, buffer, &data);
        size_t end = 0;
        for (size_t at = length >= endLength ? length - endLength + 1 : 0; at-- > 0;) {
            if (memcmp(data + at, kEnd, endLength) == 0) {
                end = at + endLength;
                break;
            }
        }
        // Past the last object: nothing is cut short.
        int rest = end > 0;
        for (size_t at = end; rest && at < length; ++at) {
            if (data[at] > ' ') rest = 2;
        }
        if (rest == 2) {
            fz_resize_buffer(ctx, buffer, end);
            stream = fz_open_buffer(ctx, buffer);
            doc = pdf_open_document_with_stream(ctx, stream);
        }
    }
    fz_always(ctx) {
        fz_drop_stream(ctx, stream);
        fz_drop_buffer(ctx, buffer);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return doc;
}

// ---- permissions ----

// The /P bits (PDF numbering, bit 1 lowest) and the handler's revision, read
// from the trailer's /Encrypt dictionary.
struct EncryptionInfo {
    int64_t p = 0;
    int hasP = 0;
    int revision = 0;
};

EncryptionInfo readEncryption(fz_context* ctx, pdf_document* doc) {
    return guarded(ctx, [&] {
        EncryptionInfo info;
        pdf_obj* encrypt = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Encrypt));
        pdf_obj* p = pdf_dict_get(ctx, encrypt, PDF_NAME(P));
        if (pdf_is_int(ctx, p)) {
            info.p = pdf_to_int64(ctx, p);
            info.hasP = 1;
        } else if (pdf_is_real(ctx, p)) {
            info.p = (int64_t)pdf_to_real(ctx, p);
            info.hasP = 1;
        }
        info.revision = pdf_dict_get_int(ctx, encrypt, PDF_NAME(R));
        if (info.revision <= 0 && doc->crypt != NULL) info.revision = pdf_crypt_revision(ctx, doc->crypt);
        return info;
    });
}

bool bit(uint32_t p, int pdfBit) {
    return (p >> (pdfBit - 1)) & 1u;
}

// ---- saving ----

// Where MuPDF's writer puts the bytes: the temporary file, by descriptor.
struct FileSink {
    int fd;
    int64_t written;
};

// Called by MuPDF inside its own error frames; plain C, reports by fz_throw.
void sinkWrite(fz_context* ctx, void* state, const void* data, size_t n) {
    FileSink* sink = static_cast<FileSink*>(state);
    const char* bytes = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t done = ::write(sink->fd, bytes, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            fz_throw(ctx, FZ_ERROR_GENERIC, "cannot write the file: %s", std::strerror(errno));
        }
        bytes += done;
        n -= size_t(done);
        sink->written += done;
    }
}

int64_t sinkTell(fz_context*, void* state) {
    return static_cast<FileSink*>(state)->written;
}

// The directory a file at target lives in.
fs::path directoryOf(const fs::path& target) {
    return target.has_parent_path() ? target.parent_path() : fs::path(".");
}

// A name for a file beside the target that no other file has yet: hidden,
// after the target's name (cut short enough for any file name the target
// itself may have), with six random letters and digits.
std::string hiddenName(const fs::path& target) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::atomic<uint64_t> counter{0};
    uint64_t seed = uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                    (uint64_t(::getpid()) << 32) ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    std::string base = target.filename().string();
    if (base.size() > 200) base.resize(200);
    std::string name = "." + base + ".";
    for (int i = 0; i < 6; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        name += letters[(seed >> 33) % (sizeof letters - 1)];
    }
    return (directoryOf(target) / name).string();
}

// The new file, written in the target's directory. It has no name while it
// is written (O_TMPFILE), so a process that dies while saving leaves nothing
// behind; a filesystem that cannot make unnamed files gets a hidden named
// file instead, removed unless committed.
class NewFile {
public:
    explicit NewFile(const fs::path& target) : target_(target) {
        const fs::path dir = directoryOf(target);
#ifdef O_TMPFILE
        // Linking the file into place goes through its /proc/self/fd entry.
        if (::access("/proc/self/fd", X_OK) == 0) {
            fd_ = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
            if (fd_ >= 0) return;
        }
#endif
        std::string pattern = hiddenName(target);
        pattern.replace(pattern.size() - 6, 6, "XXXXXX");
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        fd_ = ::mkstemp(name.data());
        if (fd_ < 0) {
            throw Orvane::Exception("cannot create a temporary file in " + dir.string() + ": " + errorText(errno));
        }
        path_ = name.data();
    }
    ~NewFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty() && !committed_ && ::unlink(path_.c_str()) != 0 && errno != ENOENT) {
            LOG(WARNING) << "cannot remove the temporary file " << path_ << ": " << errorText(errno);
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int fd() const { return fd_; }

    // Flushes the data to the disk and puts the file in the target's place.
    void commit() {
        if (::fsync(fd_) != 0) throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
        if (path_.empty()) {
            linkIntoPlace();
        } else {
            if (::close(std::exchange(fd_, -1)) != 0) {
                throw Orvane::Exception("cannot write " + path_ + ": " + errorText(errno));
            }
            replaceTarget(path_);
        }
        committed_ = true;
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
        // The new name is durable once the directory is.
        const fs::path dir = directoryOf(target_);
        const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd < 0 || ::fsync(dirFd) != 0) {
            LOG(WARNING) << "cannot flush the directory " << dir.string() << ": " << errorText(errno);
        }
        if (dirFd >= 0) ::close(dirFd);
    }

private:
    // Gives the unnamed file the target's name. linkat cannot replace a file,
    // so over an existing target the file is linked under a hidden name and
    // renamed at once: that name exists only between the two calls.
    void linkIntoPlace() {
        const std::string self = "/proc/self/fd/" + std::to_string(fd_);
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target_.c_str(), AT_SYMLINK_FOLLOW) == 0) return;
        if (errno != EEXIST) {
            throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
        }
        for (int attempt = 0;; ++attempt) {
            const std::string hidden = hiddenName(target_);
            if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, hidden.c_str(), AT_SYMLINK_FOLLOW) == 0) {
                try {
                    replaceTarget(hidden);
                } catch (...) {
                    ::unlink(hidden.c_str());
                    throw;
                }
                return;
            }
            if (errno != EEXIST || attempt == 100) {
                throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
            }
        }
    }

    void replaceTarget(const std::string& from) {
        if (::rename(from.c_str(), target_.c_str()) != 0) {
            throw Orvane::Exception("cannot replace " + target_.string() + ": " + errorText(errno));
        }
    }

    fs::path target_;
    int fd_ = -1;
    std::string path_;  // empty for an unnamed file
    bool committed_ = false;
};

// The permission bits for a new file: those of the file it replaces, else
// what the process's umask leaves of rw-rw-rw-.
mode_t modeFor(const fs::path& target) {
    struct stat st;
    if (::stat(target.c_str(), &st) == 0) return st.st_mode & 07777;
    mode_t mask = 022;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Umask:", 0) == 0) {
            mask = mode_t(std::strtoul(line.c_str() + 6, nullptr, 8));
            break;
        }
    }
    return 0666 & ~mask;
}

// References nested deeper than this are not saved (MuPDF's writer follows
// them recursively; about 80,000 levels overflow an 8 MiB stack).
constexpr int kMaxSaveDepth = 20000;

// ---- pages ----

// An annotation that neither shows nor prints, whatever the viewer does with
// the mouse: Hidden (bit 2), or NoView (bit 6) without Print (bit 3) and
// without ToggleNoView (bit 9).
bool neverVisible(int flags) {
    if (flags & 2) return true;
    return (flags & 32) && !(flags & 4) && !(flags & 256);
}

int compareInts(const void* a, const void* b) {
    const int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
    return (x > y) - (x < y);
}

// Counts the page's never-visible annotations (not widgets, not popups, not
// those in kept, sorted object numbers of annotations a user made) and,
// with drop, removes them from its /Annots. C only: runs inside guarded().
int hiddenAnnotations(fz_context* ctx, pdf_obj* page, int drop, const int* kept, size_t keptCount) {
    pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
    int found = 0;
    for (int i = pdf_array_len(ctx, annots) - 1; i >= 0; --i) {
        pdf_obj* annot = pdf_array_get(ctx, annots, i);
        if (!pdf_is_dict(ctx, annot)) continue;
        pdf_obj* subtype = pdf_dict_get(ctx, annot, PDF_NAME(Subtype));
        if (pdf_name_eq(ctx, subtype, PDF_NAME(Widget)) || pdf_name_eq(ctx, subtype, PDF_NAME(Popup))) continue;
        const int num = pdf_to_num(ctx, pdf_array_get(ctx, annots, i));
        if (num > 0 && bsearch(&num, kept, keptCount, sizeof num, compareInts)) continue;
        if (neverVisible(pdf_dict_get_int(ctx, annot, PDF_NAME(F)))) {
            if (drop) pdf_array_delete(ctx, annots, i);
            ++found;
        }
    }
    return found;
}

// Whether value, or what it holds directly, is an action that can show a
// hidden annotation: a Hide action, or a script. C only.
int showsAnnotations(fz_context* ctx, pdf_obj* value, int depth) {
    if (depth > 32) return 0;
    if (pdf_is_dict(ctx, value)) {
        const char* kind = pdf_to_name(ctx, pdf_dict_get(ctx, value, PDF_NAME(S)));
        if (strcmp(kind, "Hide") == 0 || strcmp(kind, "JavaScript") == 0 || pdf_dict_get(ctx, value, PDF_NAME(JS)))
            return 1;
        for (int i = 0, n = pdf_dict_len(ctx, value); i < n; ++i) {
            pdf_obj* entry = pdf_dict_get_val(ctx, value, i);
            if (!pdf_is_indirect(ctx, entry) && showsAnnotations(ctx, entry, depth + 1)) return 1;
        }
    } else if (pdf_is_array(ctx, value)) {
        for (int i = 0, n = pdf_array_len(ctx, value); i < n; ++i) {
            pdf_obj* entry = pdf_array_get(ctx, value, i);
            if (!pdf_is_indirect(ctx, entry) && showsAnnotations(ctx, entry, depth + 1)) return 1;
        }
    }
    return 0;
}

// Whether anything in the document can show an annotation that its flags
// hide. An object that cannot be read is skipped; running out of memory or
// time answers yes (nothing is removed on a guess). C only.
int mayShowHidden(fz_context* ctx, pdf_document* doc) {
    const int count = pdf_xref_len(ctx, doc);
    for (int num = 1; num < count; ++num) {
        pdf_obj* obj = NULL;
        int shows = 0;
        fz_try(ctx) {
            obj = pdf_load_object(ctx, doc, num);
            shows = showsAnnotations(ctx, obj, 0);
        }
        fz_always(ctx) {
            pdf_drop_obj(ctx, obj);
        }
        fz_catch(ctx) {
            shows = fz_caught(ctx) == FZ_ERROR_MEMORY || fz_caught(ctx) == FZ_ERROR_ABORT || RequestBudget::Expired();
        }
        if (shows) return 1;
    }
    return 0;
}

// Copies the bitmap's pixels into new pixmaps: colour (RGB or gray) and,
// for a bitmap with alpha that is not fully opaque, the alpha as gray.
struct ImagePixmaps {
    PixmapHandle colour;
    PixmapHandle alpha;
};

ImagePixmaps pixmapsFromBitmap(fz_context* ctx, const IBitmap& bitmap) {
    const Size size = bitmap.GetSize();
    const IBitmap::DibFormat format = bitmap.GetFormat();
    const unsigned char* pixels = bitmap.GetBuffer();
    const int stride = bitmap.GetStride();
    if (!(size.width >= 1 && size.height >= 1 && size.width < 1e9 && size.height < 1e9) || pixels == nullptr) {
        throw std::invalid_argument("the bitmap is empty");
    }
    const int width = int(size.width);
    const int height = int(size.height);
    int bytesPerPixel = 0;
    switch (format) {
        case IBitmap::Gray:
            bytesPerPixel = 1;
            break;
        case IBitmap::Bgr:
            bytesPerPixel = 3;
            break;
        case IBitmap::Bgrx:
        case IBitmap::Bgra:
            bytesPerPixel = 4;
            break;
        default:
            throw std::invalid_argument("unknown bitmap format " + std::to_string(int(format)));
    }
    if (stride < 0 || int64_t(stride) < int64_t(width) * bytesPerPixel) {
        throw std::invalid_argument("the bitmap's stride is too small for its width");
    }

    ImagePixmaps result;
    const bool gray = format == IBitmap::Gray;
    result.colour = PixmapHandle(ctx, guarded(ctx, [&] {
                                     return fz_new_pixmap(ctx, gray ? fz_device_gray(ctx) : fz_device_rgb(ctx), width,
                                                          height, NULL, 0);
                                 }));
    fz_pixmap* colour = result.colour.get();
    for (int y = 0; y < height; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride);
        unsigned char* dst = colour->samples + size_t(y) * size_t(colour->stride);
        if (gray) {
            std::memcpy(dst, src, size_t(width));
            continue;
        }
        for (int x = 0; x < width; ++x, src += bytesPerPixel, dst += 3) {
            dst[0] = src[2];
            dst[1] = src[1];
            dst[2] = src[0];
        }
    }

    if (format != IBitmap::Bgra) return result;
    bool opaque = true;
    for (int y = 0; y < height && opaque; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride) + 3;
        for (int x = 0; x < width; ++x, src += 4) {
            if (*src != 255) {
                opaque = false;
                break;
            }
        }
    }
    if (opaque) return result;
    result.alpha = PixmapHandle(
        ctx, guarded(ctx, [&] { return fz_new_pixmap(ctx, fz_device_gray(ctx), width, height, NULL, 0); }));
    fz_pixmap* alpha = result.alpha.get();
    for (int y = 0; y < height; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride) + 3;
        unsigned char* dst = alpha->samples + size_t(y) * size_t(alpha->stride);
        for (int x = 0; x < width; ++x, src += 4) dst[x] = *src;
    }
    return result;
}

void checkPageSize(double width, double height) {
    if (!(std::isfinite(width) && std::isfinite(height) && width > 0 && height > 0)) {
        throw std::invalid_argument("a page needs a width and a height above zero");
    }
}

// A number as PDF writes it: fixed notation (an exponent is not PDF syntax),
// without trailing zeros.
std::string pdfNumber(double value) {
    const int length = std::snprintf(nullptr, 0, "%.12f", value);
    std::string text(size_t(length) + 1, '\0');
    std::snprintf(text.data(), text.size(), "%.12f", value);
    text.resize(size_t(length));
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

// What MendPageTree did, for the log.
std::string describe(const TreeRepair& repair) {
    std::string text;
    auto add = [&](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (repair.xrefRebuilt) add("cross-reference table rebuilt from the objects");
    if (repair.treeRebuilt) add("page tree rebuilt from the page objects found");
    if (repair.counts) add(std::to_string(repair.counts) + " page count(s) corrected");
    if (repair.dropped) add(std::to_string(repair.dropped) + " broken page-tree entries dropped");
    if (repair.contents) add(std::to_string(repair.contents) + " page content(s) cut short left out");
    if (repair.copies) add(std::to_string(repair.copies) + " repeated page listing(s) made pages of their own");
    return text + "; " + std::to_string(repair.pages) + " page(s)";
}

// Where an insertion at index lands: before that page, or at the end.
int insertionPoint(unsigned index, int count) {
    return index <= unsigned(count) ? int(index) : count;
}

}  // namespace

// ---- construction ----

PdfDocument::PdfDocument(const std::shared_ptr<IFontProvider>& fonts) : fonts_(fonts) {
    fz_context* ctx = CurrentContext();
    Adopt(ctx, guarded(ctx, [&] { return pdf_create_document(ctx); }));
    RefreshPageCount();
}

PdfDocument::PdfDocument(const std::shared_ptr<IFontProvider>& fonts, const Orvane::ioPath& path,
                         const std::string& password)
    : fonts_(fonts) {
    fz_context* ctx = CurrentContext();
    const RequestBudget budget;
    checkReadable(path);
    const std::string file = path.utf8string();
    ScopedFontProvider fontScope(fonts.get());
    // Read before MuPDF opens it: a change made meanwhile stops appending.
    const DocumentCoreSource source = ReadSourceFile(path.path());
    try {
        Adopt(ctx, guarded(
                       ctx, [&] { return pdf_open_document(ctx, file.c_str()); }, Failure::File));
        core_->source = source;
    } catch (const std::runtime_error& e) {
        // MuPDF's repair gives up on an object cut short at the end of the
        // file (a truncated file): the objects before it are opened.
        pdf_document* shortened = nullptr;
        try {
            shortened = guarded(
                ctx, [&] { return openUpToLastObject(ctx, file.c_str()); }, Failure::File);
        } catch (const Orvane::Exception&) {
            if (RequestBudget::Expired()) throw;
        } catch (const std::runtime_error&) {
        }
        // The file's own failure, not the second attempt's.
        if (shortened == nullptr) throw;
        Adopt(ctx, shortened);
        LOG(INFO) << "repaired " << file << ": read up to its last whole object (" << e.what() << ")";
    }
    pdf_document* doc = core_->doc;

    bool ownerAccess = false;
    const int needsPassword = guarded(
        ctx, [&] { return pdf_needs_password(ctx, doc); }, Failure::File);
    if (doc->crypt != nullptr) {
        // Always authenticate with the given password: MuPDF has already
        // accepted an empty user password on its own, and only this call
        // tells whether the owner password was given.
        int access = guarded(
            ctx, [&] { return pdf_authenticate_password(ctx, doc, password.c_str()); }, Failure::File);
        if (access == 0) {
            if (needsPassword) throw std::logic_error("PASSWORD_ERROR");
            // A failed attempt leaves a wrong key behind: restore the one of
            // the empty user password the file opens with.
            VLOG(1) << "the password does not open " << file << "; opened with its empty user password";
            access = guarded(
                ctx, [&] { return pdf_authenticate_password(ctx, doc, ""); }, Failure::File);
            if (access == 0) throw std::logic_error("PASSWORD_ERROR");
        }
        ownerAccess = (access & 4) != 0;
    }

    try {
        const TreeRepair repair = MendPageTree(ctx, doc);
        if (repair.Any()) LOG(INFO) << "repaired " << file << ": " << describe(repair);
    } catch (const Orvane::Exception& e) {
        if (RequestBudget::Expired()) throw;
        LOG(WARNING) << "cannot repair the page tree of " << file << ": " << e.what();
    }

    const int count = guarded(
        ctx, [&] { return pdf_count_pages(ctx, doc); }, Failure::File);
    const int objects = guarded(
        ctx, [&] { return pdf_xref_len(ctx, doc); }, Failure::File);
    // MuPDF reads past objects it cannot load (a refused allocation among
    // them): what looks like an empty or broken file may be the budget's.
    if (RequestBudget::Expired()) {
        throw Orvane::Exception("time budget of " + std::to_string(TimeBudget().count()) +
                                " ms exceeded while opening " + file);
    }
    if (count < 0 || count > objects) {
        throw std::runtime_error("cannot open " + file + ": its page tree claims " + std::to_string(count) +
                                 " pages in a file of " + std::to_string(objects) + " objects");
    }

    const Permissions permissions = ReadPermissions(ownerAccess);
    std::lock_guard<std::mutex> lock(metaMutex_);
    path_ = path;
    pageCount_ = unsigned(count);
    permissions_ = permissions;
    ownerAccess_ = doc->crypt == nullptr || ownerAccess;
}

PdfDocument::~PdfDocument() {
    // Pages may keep the core alive; they must not call back into a
    // document that is gone.
    if (core_) core_->onPagesChanged = nullptr;
}

void PdfDocument::Adopt(fz_context* ctx, pdf_document* doc) {
    PdfDocumentHandle owned(ctx, doc);
    auto core = std::make_shared<DocumentCore>(ctx, doc);
    owned.release();
    core->fonts = fonts_;
    core->onPagesChanged = [this] { RefreshPageCount(); };
    core_ = std::move(core);
}

PdfDocument::Permissions PdfDocument::ReadPermissions(bool ownerAccess) const {
    Permissions result;
    if (core_->doc->crypt == nullptr) return result;
    result.isProtected = true;
    if (ownerAccess) return result;

    const EncryptionInfo info = readEncryption(core_->ctx, core_->doc);
    // Without /P the file states no restriction (MuPDF reads it the same way).
    const uint32_t p = info.hasP ? uint32_t(uint64_t(info.p) & 0xFFFFFFFFu) : 0xFFFFFFFCu;
    const bool revision2 = info.revision == 2;
    result.print = !bit(p, 3);
    result.editContent = !bit(p, 4);
    result.copyContent = !bit(p, 5);
    result.editPages = revision2 ? !bit(p, 4) : !bit(p, 11);
    result.extractPages = !bit(p, 5) || !bit(p, 11);
    result.printLowResolution = !revision2 && bit(p, 3) && !bit(p, 12);
    result.annotate = !bit(p, 6);
    return result;
}

// ---- whole-document operations ----

namespace {

// The pages a walk over every page visits: a count the tree's nodes claim is
// no bound, only the pages the tree holds are.
int PagesHeld(fz_context* ctx, pdf_document* doc, const PageTree& tree) {
    return std::min(guarded(ctx, [&] { return pdf_count_pages(ctx, doc); }), static_cast<int>(tree.leaves.size()));
}

// A walk over every page ends with the request's budget, whatever each page
// costs (a page that fails is logged and passed over).
void ThrowIfBudgetSpent(const char* what) {
    if (RequestBudget::Expired()) {
        throw Orvane::Exception(std::string(what) + " ran past the time budget of " +
                                std::to_string(TimeBudget().count()) + " ms");
    }
}

}  // namespace

void PdfDocument::FixupDocument() const {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    const PageTree tree = ReadPageTree(ctx, doc);
    const int count = PagesHeld(ctx, doc, tree);
    for (int i = 0; i < count; ++i) {
        ThrowIfBudgetSpent("completing the pages' attributes");
        try {
            pdf_obj* page = PageObject(ctx, doc, tree, i);
            guarded(ctx, [&] { pdf_flatten_inheritable_page_items(ctx, page); });
        } catch (const Orvane::Exception& e) {
            LOG(WARNING) << "cannot complete the attributes of page " << i + 1 << ": " << e.what();
        }
    }
}

void PdfDocument::Save(const Orvane::ioPath& path, unsigned long) const {
    SaveAs(path, 0);
}

void PdfDocument::SaveWithVersion(const Orvane::ioPath& path, int version, unsigned long) const {
    if (version < 10 || version > 20) {
        throw std::invalid_argument("no PDF version " + std::to_string(version / 10) + "." +
                                    std::to_string(version % 10));
    }
    SaveAs(path, version);
}

void PdfDocument::SaveAs(const Orvane::ioPath& path, int version) const {
    if (path.empty()) throw Orvane::Exception("cannot save a document to an empty path");
    fs::path target = path.path();
    std::error_code ec;
    if (fs::is_symlink(target, ec)) {
        const fs::path resolved = fs::canonical(target, ec);
        if (!ec) target = resolved;
    }
    if (target.filename().empty()) throw Orvane::Exception("cannot save to " + path.utf8string() + ": not a file name");

    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    ScopedFontProvider fontScope(core_->fonts.get());
    const RequestBudget budget;
    // Writing copies streams as the file holds them: a large attachment is
    // no decompression bomb, only the memory cap applies.
    RequestBudget::AllowBlocksOf(MemoryLimit());

    // Changes to the file the document came from are appended to its bytes
    // where MuPDF can express them as an update.
    const bool append = version == 0 && CanAppendTo(*core_, target);
    // A whole write marks what the document reaches recursively: refuse
    // chains of references long enough to overflow the stack before it
    // starts. An update writes the changed objects alone and marks nothing.
    if (!append) {
        Nesting nesting(ctx, doc, kMaxSaveDepth, false);
        guarded(ctx, [&] { CheckNesting(ctx, nesting.State(), pdf_trailer(ctx, doc)); });
    }

    NewFile temp(target);
    if (append) {
        WriteAppended(*core_, temp.fd());
    } else {
        WriteWhole(temp.fd(), version);
    }
    if (::fchmod(temp.fd(), modeFor(target)) != 0) {
        LOG(WARNING) << "cannot set the permissions of the new " << target.string() << ": " << errorText(errno);
    }
    temp.commit();
    NoteSaved(*core_, target, append);
}

void PdfDocument::WriteWhole(int fd, int version) const {
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    pdf_write_options options = pdf_default_write_options;
    // Garbage collection 1 leaves out what nothing refers to (deleted pages,
    // replaced resources) without renumbering: the higher levels renumber the
    // open document's objects in place, under the pages that hold them.
    options.do_garbage = 1;
    options.do_compress = 1;
    options.do_compress_images = 1;
    options.do_compress_fonts = 1;
    options.do_encrypt = PDF_ENCRYPT_KEEP;

    FileSink sink{fd, 0};
    OutputHandle out(ctx, guarded(ctx, [&] { return fz_new_output(ctx, 64 * 1024, &sink, sinkWrite, NULL, NULL); }));
    out.get()->tell = sinkTell;

    const int ownVersion = doc->version;
    if (version != 0) doc->version = version;
    try {
        guarded(ctx, [&] {
            pdf_write_document(ctx, doc, out.get(), &options);
            fz_close_output(ctx, out.get());
        });
    } catch (...) {
        doc->version = ownVersion;
        throw;
    }
    doc->version = ownVersion;
}

bool PdfDocument::HasOwnerAccess() const {
    std::lock_guard<std::mutex> lock(metaMutex_);
    return ownerAccess_;
}

void PdfDocument::KeepEncryptionOf(const PdfDocument& source) {
    fz_context* ctx = core_->ctx;
    pdf_document* from = source.core_->doc;
    pdf_document* doc = core_->doc;
    if (source.core_->ctx != ctx) throw Orvane::Exception("the documents belong to different threads");
    if (from->crypt == nullptr || from == doc) return;
    guarded(ctx, [&] {
        pdf_obj* trailer = pdf_trailer(ctx, doc);
        pdf_obj* sourceTrailer = pdf_trailer(ctx, from);
        // The dictionary and identifier as read: MuPDF neither decrypts nor
        // encrypts the encryption dictionary's strings.
        pdf_obj* encrypt =
            pdf_graft_object(ctx, doc, pdf_resolve_indirect(ctx, pdf_dict_get(ctx, sourceTrailer, PDF_NAME(Encrypt))));
        pdf_obj* ref = NULL;
        fz_var(ref);
        fz_try(ctx) {
            ref = pdf_add_object(ctx, doc, encrypt);
            pdf_dict_put(ctx, trailer, PDF_NAME(Encrypt), ref);
            pdf_dict_put_drop(ctx, trailer, PDF_NAME(ID),
                              pdf_graft_object(ctx, doc, pdf_dict_get(ctx, sourceTrailer, PDF_NAME(ID))));
            pdf_crypt* crypt = pdf_new_crypt(ctx, encrypt, pdf_dict_get(ctx, trailer, PDF_NAME(ID)));
            // The key the source was opened with (MuPDF keeps 32 bytes,
            // enough for every method).
            memcpy(pdf_crypt_key(ctx, crypt), pdf_crypt_key(ctx, from->crypt), 32);
            pdf_drop_crypt(ctx, doc->crypt);
            doc->crypt = crypt;
        }
        fz_always(ctx) {
            pdf_drop_obj(ctx, ref);
            pdf_drop_obj(ctx, encrypt);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
    });
    const Permissions permissions = source.ReadPermissions(source.HasOwnerAccess());
    std::lock_guard<std::mutex> lock(metaMutex_);
    permissions_ = permissions;
    ownerAccess_ = source.HasOwnerAccess();
}

// ---- metadata ----

void PdfDocument::SetDocumentPath(const Orvane::ioPath& path) {
    std::lock_guard<std::mutex> lock(metaMutex_);
    path_ = path;
}

Orvane::ioPath PdfDocument::GetDocumentPath() const {
    std::lock_guard<std::mutex> lock(metaMutex_);
    return path_;
}

unsigned PdfDocument::GetPageCount() const {
    std::lock_guard<std::mutex> lock(metaMutex_);
    return pageCount_;
}

bool PdfDocument::Permission(bool Permissions::*flag) const {
    std::lock_guard<std::mutex> lock(metaMutex_);
    return permissions_.*flag;
}

bool PdfDocument::IsProtected() const {
    return Permission(&Permissions::isProtected);
}

bool PdfDocument::IsEditContentProtected() const {
    return Permission(&Permissions::editContent);
}

bool PdfDocument::IsEditPagesProtected() const {
    return Permission(&Permissions::editPages);
}

bool PdfDocument::IsExtractingPagesProtected() const {
    return Permission(&Permissions::extractPages);
}

bool PdfDocument::IsCopyTextAndGraphicsProtected() const {
    return Permission(&Permissions::copyContent);
}

bool PdfDocument::IsPrintProtected() const {
    return Permission(&Permissions::print);
}

bool PdfDocument::IsPrintLowResolution() const {
    return Permission(&Permissions::printLowResolution);
}

void PdfDocument::SetFormOnChangeHandler(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(metaMutex_);
    formChangeHandler_ = std::move(handler);
}

void PdfDocument::RefreshPageCount() {
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    // MuPDF finds an open page by its number; after pages moved, the numbers
    // it keeps would hand out the wrong page. One walk of the tree answers
    // for every open page.
    if (doc->super.open != nullptr) {
        const PageTree tree = ReadPageTree(ctx, doc);
        std::unordered_map<pdf_obj*, int> numbers;
        if (tree.consistent) {
            for (size_t i = 0; i < tree.leaves.size(); ++i) {
                pdf_obj* leaf = tree.leaves[i].page;
                numbers.emplace(guarded(ctx, [&] { return pdf_resolve_indirect(ctx, leaf); }), int(i));
            }
        }
        for (fz_page* page = doc->super.open; page != nullptr; page = page->next) {
            pdf_obj* obj = reinterpret_cast<pdf_page*>(page)->obj;
            int number = -1;
            try {
                if (tree.consistent) {
                    const auto found = numbers.find(guarded(ctx, [&] { return pdf_resolve_indirect(ctx, obj); }));
                    if (found != numbers.end()) number = found->second;
                } else {
                    number = guarded(ctx, [&] { return pdf_lookup_page_number(ctx, doc, obj); });
                }
            } catch (const Orvane::Exception& e) {
                VLOG(1) << "an open page is no longer in the page tree: " << e.what();
            }
            page->number = number;
        }
    }
    const int count = guarded(ctx, [&] { return pdf_count_pages(ctx, doc); });
    std::lock_guard<std::mutex> lock(metaMutex_);
    pageCount_ = unsigned(std::max(count, 0));
}

// ---- pages ----

std::shared_ptr<IPage> PdfDocument::GetPage(unsigned index) const {
    return MakePage(core_, index);
}

std::shared_ptr<IPage> PdfDocument::CreatePage(unsigned index, double width, double height) {
    checkPageSize(width, height);
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    const int at = insertionPoint(index, guarded(ctx, [&] { return pdf_count_pages(ctx, doc); }));

    BufferHandle contents(ctx, guarded(ctx, [&] { return fz_new_buffer(ctx, 1); }));
    PdfObjHandle resources(ctx, guarded(ctx, [&] { return pdf_new_dict(ctx, doc, 1); }));
    const fz_rect box = fz_make_rect(0, 0, float(width), float(height));
    PdfObjHandle page(ctx,
                      guarded(ctx, [&] { return pdf_add_page(ctx, doc, box, 0, resources.get(), contents.get()); }));
    InsertPages(ctx, doc, at, {page.get()});
    RefreshPageCount();
    return MakePage(core_, unsigned(at));
}

std::shared_ptr<IPage> PdfDocument::CreatePageFromImage(unsigned index, const std::shared_ptr<IBitmap>& image,
                                                        double width, double height) {
    if (!image) throw std::invalid_argument("no bitmap for the page");
    checkPageSize(width, height);
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;

    ImagePixmaps pixmaps = pixmapsFromBitmap(ctx, *image);
    ImageHandle mask;
    if (pixmaps.alpha) {
        mask = ImageHandle(ctx, guarded(ctx, [&] { return fz_new_image_from_pixmap(ctx, pixmaps.alpha.get(), NULL); }));
    }
    ImageHandle picture(ctx,
                        guarded(ctx, [&] { return fz_new_image_from_pixmap(ctx, pixmaps.colour.get(), mask.get()); }));
    pixmaps = ImagePixmaps{};
    PdfObjHandle imageObj(ctx, guarded(ctx, [&] { return pdf_add_image(ctx, doc, picture.get()); }));
    picture.reset();
    mask.reset();

    PdfObjHandle resources(ctx, guarded(ctx, [&] { return pdf_new_dict(ctx, doc, 1); }));
    guarded(ctx, [&] {
        pdf_obj* xobjects = pdf_dict_put_dict(ctx, resources.get(), PDF_NAME(XObject), 1);
        pdf_dict_puts(ctx, xobjects, "Im0", imageObj.get());
    });
    const std::string drawing = "q " + pdfNumber(width) + " 0 0 " + pdfNumber(height) + " 0 0 cm /Im0 Do Q\n";
    BufferHandle contents(ctx, guarded(ctx, [&] {
                              return fz_new_buffer_from_copied_data(
                                  ctx, reinterpret_cast<const unsigned char*>(drawing.data()), drawing.size());
                          }));

    const int at = insertionPoint(index, guarded(ctx, [&] { return pdf_count_pages(ctx, doc); }));
    const fz_rect box = fz_make_rect(0, 0, float(width), float(height));
    PdfObjHandle page(ctx,
                      guarded(ctx, [&] { return pdf_add_page(ctx, doc, box, 0, resources.get(), contents.get()); }));
    InsertPages(ctx, doc, at, {page.get()});
    RefreshPageCount();
    return MakePage(core_, unsigned(at));
}

void PdfDocument::DeletePage(unsigned index) {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    const int count = guarded(ctx, [&] { return pdf_count_pages(ctx, doc); });
    if (index >= unsigned(std::max(count, 0))) {
        throw std::out_of_range("no page " + std::to_string(index) + " in a document of " + std::to_string(count) +
                                " pages");
    }
    RemovePage(ctx, doc, int(index));
    RefreshPageCount();
}

void PdfDocument::RemoveHiddenObjects() {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    const PageTree tree = ReadPageTree(ctx, doc);
    const int count = PagesHeld(ctx, doc, tree);
    std::vector<int> kept(core_->userAnnotations.begin(), core_->userAnnotations.end());
    std::sort(kept.begin(), kept.end());
    // Two passes: most documents hide nothing, and only those that do are
    // searched for what could show it.
    for (int drop = 0; drop <= 1; ++drop) {
        int found = 0;
        for (int i = 0; i < count; ++i) {
            ThrowIfBudgetSpent("looking for hidden annotations");
            try {
                pdf_obj* page = PageObject(ctx, doc, tree, i);
                const int hidden = guarded(ctx, [&] { return hiddenAnnotations(ctx, page, drop, kept.data(), kept.size()); });
                found += hidden;
                VLOG_IF(1, drop && hidden > 0) << "removed " << hidden << " hidden annotation(s) from page " << i + 1;
            } catch (const Orvane::Exception& e) {
                LOG(WARNING) << "cannot look for hidden annotations on page " << i + 1 << ": " << e.what();
            }
        }
        if (found == 0) return;
        if (!drop && guarded(ctx, [&] { return mayShowHidden(ctx, doc); })) {
            VLOG(1) << "hidden annotations kept: an action or a script of the document may show them";
            return;
        }
    }
}

}  // namespace Orvane::PDF::Pdfium
