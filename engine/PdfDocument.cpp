#include "engine/PdfDocument.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "engine/Annotations.h"
#include "engine/AtomicFile.h"
#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/FileStreams.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/Nesting.h"
#include "engine/PageTree.h"
#include "engine/RemovedPages.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

namespace fs = std::filesystem;

std::string errorText(int err) {
    return std::strerror(err);
}

// ---- saving ----

// References nested deeper than this are not saved (MuPDF's writer follows
// them recursively; about 80,000 levels overflow an 8 MiB stack).
constexpr int kMaxSaveDepth = 20000;

}  // namespace

PdfDocument& EngineDocument(const std::shared_ptr<IDocument>& document, const char* role) {
    if (!document) throw std::invalid_argument(std::string("no ") + role + " document for the import");
    auto* engineDoc = dynamic_cast<PdfDocument*>(document.get());
    if (engineDoc == nullptr)
        throw std::invalid_argument(std::string("the ") + role + " document is not a PDF document");
    return *engineDoc;
}

// ---- construction ----

PdfDocument::PdfDocument(const std::shared_ptr<IFontProvider>& fonts) : fonts_(fonts) {
    fz_context* ctx = CurrentContext();
    Adopt(ctx, guarded(ctx, [&] { return pdf_create_document(ctx); }));
    RefreshPageCount();
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

// ---- whole-document operations ----

void PdfDocument::FixupDocument() const {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    ForEachPage(ctx, doc, ReadPageTree(ctx, doc), "completing the pages' attributes", "complete the attributes of",
                [&](int, pdf_obj* page) { guarded(ctx, [&] { pdf_flatten_inheritable_page_items(ctx, page); }); });
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
    if (!append && core_->hiddenUpdateOnly != 0 && core_->hiddenUpdateOnly == core_->generation) {
        RemoveHiddenAnnotations(*core_, HiddenScope::Document);
    }
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
    pdf_write_options options = SaveWriteOptions();
    // Garbage collection 1 leaves out what nothing refers to (deleted pages,
    // replaced resources) without renumbering: the higher levels renumber the
    // open document's objects in place, under the pages that hold them.
    options.do_garbage = 1;

    FileSink sink{fd, 0};
    OutputHandle out(ctx, guarded(ctx, [&] { return NewFileOutput(ctx, &sink); }));

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

void PdfDocument::SetFormOnChangeHandler(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(metaMutex_);
    formChangeHandler_ = std::move(handler);
}

std::function<void()> PdfDocument::FormOnChangeHandler() const {
    std::lock_guard<std::mutex> lock(metaMutex_);
    return formChangeHandler_;
}

void PdfDocument::RefreshPageCount() {
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    RenumberOpenPages(ctx, doc);
    const int count = PageCount(ctx, doc);
    std::lock_guard<std::mutex> lock(metaMutex_);
    pageCount_ = unsigned(std::max(count, 0));
}

// ---- pages ----

std::shared_ptr<IPage> PdfDocument::GetPage(unsigned index) const {
    return MakePage(core_, index);
}

void PdfDocument::DeletePage(unsigned index) {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    const int count = PageCount(ctx, doc);
    if (index >= unsigned(std::max(count, 0))) {
        throw std::out_of_range("no page " + std::to_string(index) + " in a document of " + std::to_string(count) +
                                " pages");
    }
    const int page = RemovePage(ctx, doc, int(index));
    RefreshPageCount();
    // The outline and the form let go of the page too. A page listed more
    // than once in the tree is one object per listing since it was opened.
    try {
        ForgetRemovedPage(ctx, doc, page);
    } catch (const std::exception& e) {
        LOG(WARNING) << "page " << index << " deleted; its outline entries and widgets stay: " << e.what();
    }
}

}  // namespace Orvane::PDF::Pdfium
