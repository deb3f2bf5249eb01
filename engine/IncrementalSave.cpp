// Saving a document's changes as an update appended to the bytes of the file
// it was opened from: the original bytes stay as they are (so do the byte
// ranges signatures cover), and saving a small change to a big file costs
// the change, not the file.

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>
#include <sys/stat.h>

#include <string>
#include <system_error>

#include "engine/Annotations.h"
#include "engine/DocumentCore.h"
#include "engine/FileStreams.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

namespace fs = std::filesystem;

std::string canonicalName(const fs::path& path) {
    std::error_code ec;
    const fs::path resolved = fs::weakly_canonical(path, ec);
    return ec ? std::string() : resolved.string();
}

// Writes the original bytes and the update into out, an empty file. MuPDF
// reads the output back, finds it does not start with the original, and
// copies the original in before the update; with nothing changed, the copy
// is all. C only.
void appendTo(fz_context* ctx, pdf_document* doc, fz_output* out) {
    pdf_write_options options = SaveWriteOptions();
    options.do_incremental = 1;
    if (doc->num_incremental_sections == 0) {
        unsigned char buffer[64 * 1024];
        size_t n;
        fz_seek(ctx, doc->file, 0, SEEK_SET);
        while ((n = fz_read(ctx, doc->file, buffer, sizeof buffer)) > 0) fz_write_data(ctx, out, buffer, n);
    } else {
        pdf_write_document(ctx, doc, out, &options);
    }
    fz_close_output(ctx, out);
}

int appendable(fz_context* ctx, pdf_document* doc) {
    return doc->file != NULL && pdf_can_be_saved_incrementally(ctx, doc);
}

}  // namespace

DocumentCoreSource ReadSourceFile(const fs::path& path) {
    DocumentCoreSource source;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return source;
    source.path = canonicalName(path);
    source.known = !source.path.empty();
    source.device = uint64_t(st.st_dev);
    source.inode = uint64_t(st.st_ino);
    source.size = int64_t(st.st_size);
    source.modifiedNs = int64_t(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    return source;
}

bool CanAppendTo(const DocumentCore& core, const fs::path& target) {
    const DocumentCoreSource& source = core.source;
    if (!source.known || canonicalName(target) != source.path) return false;
    const DocumentCoreSource now = ReadSourceFile(target);
    if (!now.known || now.device != source.device || now.inode != source.inode || now.size != source.size ||
        now.modifiedNs != source.modifiedNs) {
        LOG(INFO) << target.string() << " changed on disk since it was opened: saved whole";
        return false;
    }
    try {
        return guarded(core.ctx, [&] { return appendable(core.ctx, core.doc); }) != 0;
    } catch (const Orvane::Exception& e) {
        LOG(WARNING) << "cannot tell whether " << target.string() << " takes an update: " << e.what();
        return false;
    }
}

void WriteAppended(DocumentCore& core, int fd) {
    fz_context* ctx = core.ctx;
    FileSink sink{fd, 0};
    OutputHandle out(ctx, guarded(ctx, [&] { return NewFileOutput(ctx, &sink); }));
    guarded(ctx, [&] { appendTo(ctx, core.doc, out.get()); });
}

void NoteSaved(DocumentCore& core, const fs::path& target, bool appended) {
    if (!core.source.known || canonicalName(target) != core.source.path) return;
    if (appended) {
        core.source = ReadSourceFile(target);
    } else {
        core.source.known = false;
    }
}

}  // namespace Orvane::PDF::Pdfium
