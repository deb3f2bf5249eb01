// Opening a document: the file checked, a damaged file repaired, the
// password tried, the page tree mended.

#include <fcntl.h>
#include <glog/logging.h>
#include <mupdf/pdf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "engine/Annotations.h"
#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/FileStreams.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"
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

pdf_document* openFile(fz_context* ctx, const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot open file '%s': %s", path, strerror(errno));
    fz_stream* stm = NewFileStream(ctx, fd);
    pdf_document* doc = NULL;
    fz_try(ctx) {
        doc = pdf_open_document_with_stream(ctx, stm);
    }
    fz_always(ctx) {
        fz_drop_stream(ctx, stm);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return doc;
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

}  // namespace

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
                       ctx, [&] { return openFile(ctx, file.c_str()); }, Failure::File));
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

    // MuPDF's own count, checked: a file whose tree could not be mended
    // and still claims more pages than it has objects is refused.
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

    const int pages = PageCount(ctx, doc);
    const Permissions permissions = ReadPermissions(ownerAccess);
    std::lock_guard<std::mutex> lock(metaMutex_);
    path_ = path;
    pageCount_ = unsigned(pages);
    permissions_ = permissions;
    ownerAccess_ = doc->crypt == nullptr || ownerAccess;
}

}  // namespace Orvane::PDF::Pdfium
