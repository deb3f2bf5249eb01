#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "orvane/IoPath.h"
#include "orvane/pdf/Document.h"

struct fz_context;
struct pdf_document;

namespace Orvane::PDF::Pdfium {

struct DocumentCore;

// A PDF document on MuPDF. Made, used and destroyed on one thread (the one
// whose context opened it); the metadata queries alone (path, page count,
// permissions, form handler) may come from any thread and are answered from a
// copy kept current under metaMutex_, without touching MuPDF.
//
// Failures: std::runtime_error for a missing, unreadable, non-PDF or damaged
// file; std::logic_error("PASSWORD_ERROR") for a missing or wrong password;
// std::out_of_range for an index of an existing page out of range;
// std::invalid_argument for a meaningless argument (empty bitmap, page size
// not above zero); Orvane::Exception for any other engine or I/O failure.
class PdfDocument : public IDocument {
public:
    // A new, empty document without pages and without a path. Needs the
    // calling thread's engine context (PdfiumInitializer::InitLibrary).
    explicit PdfDocument(const std::shared_ptr<IFontProvider>& fonts);
    // Opens and parses the file (UTF-8 path). A damaged file is opened with
    // the pages it holds (see MendPageTree): a page tree whose counts lie,
    // loop or list a page more than once, a broken or looping chain of
    // cross-reference sections, a tree that reaches no page. Throws
    // std::runtime_error for a missing, unreadable or non-PDF file,
    // Orvane::Exception naming the limit when the time budget or the memory
    // limit ends the open; std::logic_error("PASSWORD_ERROR") when
    // the file needs a password and the given one is neither its user nor its
    // owner password. A file that opens without a password (empty user
    // password) also opens with a wrong one, with user access. The owner
    // password lifts every permission restriction.
    PdfDocument(const std::shared_ptr<IFontProvider>& fonts, const Orvane::ioPath& path, const std::string& password);
    ~PdfDocument() override;
    PdfDocument(const PdfDocument&) = delete;
    PdfDocument& operator=(const PdfDocument&) = delete;

    // Copies the inheritable attributes (/Resources, /MediaBox, /CropBox,
    // /Rotate) from the page tree into every page dictionary. A page that
    // cannot be reached is logged and skipped.
    void FixupDocument() const override;
    // Writes the whole document (unreferenced objects dropped, streams
    // compressed, encryption kept as opened) to a new file in path's
    // directory, flushed to the disk, then puts it in path's place: an
    // unnamed file (O_TMPFILE) linked into place where the filesystem has
    // them, else a hidden temporary file renamed over path. A symbolic link
    // at path is followed. On any failure nothing is left behind, path is
    // left as it was, and Orvane::Exception is thrown (also for an empty
    // path). flags is ignored.
    // Saving to the file the document was opened from is fine.
    void Save(const Orvane::ioPath& path, unsigned long flags) const override;
    // As Save, with the header's version 10 * major + minor (10 to 20);
    // another version throws std::invalid_argument.
    void SaveWithVersion(const Orvane::ioPath& path, int version, unsigned long flags) const override;
    void SetDocumentPath(const Orvane::ioPath& path) override;
    Orvane::ioPath GetDocumentPath() const override;
    unsigned GetPageCount() const override;
    bool IsProtected() const override;
    bool IsEditContentProtected() const override;
    bool IsEditPagesProtected() const override;
    bool IsExtractingPagesProtected() const override;
    bool IsCopyTextAndGraphicsProtected() const override;
    bool IsPrintProtected() const override;
    bool IsPrintLowResolution() const override;
    // The page at index; std::out_of_range past the last page.
    std::shared_ptr<IPage> GetPage(unsigned index) const override;
    // Inserts a blank page of width x height points (both finite and above
    // zero, else std::invalid_argument) before the page at index, or appends
    // it when index is the page count or more. Returns the new page.
    std::shared_ptr<IPage> CreatePage(unsigned index, double width, double height) override;
    // As CreatePage, the page showing the bitmap scaled to width x height.
    // The bitmap's pixels are copied (Bgrx, Bgra, Bgr or Gray); an alpha
    // channel that is not fully opaque is kept as the image's /SMask. The
    // picture is stored as an image XObject, compressed when saved. An empty
    // bitmap, an unknown format or a stride too small for the width throws
    // std::invalid_argument.
    std::shared_ptr<IPage> CreatePageFromImage(unsigned index, const std::shared_ptr<IBitmap>& image, double width,
                                               double height) override;
    // Removes the page at index from the page tree; std::out_of_range past
    // the last page. Its objects leave the file at the next save.
    void DeletePage(unsigned index) override;
    // Removes from every page's /Annots the annotations that can never show
    // or print: those flagged Hidden, and those flagged NoView without Print
    // or ToggleNoView. Widgets (form scripts may show them) and popups
    // (opened from their parent) are kept, and so is every hidden annotation
    // of a document with a Hide action or a script anywhere (they could show
    // it). Page content, optional content and
    // everything else are left alone, so no page changes what it shows or
    // prints. A page that cannot be read is logged and skipped.
    void RemoveHiddenObjects() override;
    // RemoveHiddenObjects before a save to target. A save that appends an
    // update to the file the document came from leaves that file's bytes as
    // they are, so only what the update writes is looked at; a save that
    // rewrites the file after this looks at every page first.
    void RemoveHiddenObjectsBeforeSave(const Orvane::ioPath& target);
    // Stores the handler (any thread); the service calls it after a request
    // changed a form field.
    void SetFormOnChangeHandler(std::function<void()> handler) override;
    std::function<void()> FormOnChangeHandler() const;

    // Whether the document forbids adding or changing annotations (false
    // with owner access). Any thread, as the other permission queries.
    bool IsAnnotateProtected() const { return Permission(&Permissions::annotate); }
    // Whether the document forbids filling in its form (false with owner access).
    bool IsFillFormProtected() const { return Permission(&Permissions::fillForm); }
    // Whether the document was opened with its owner password (an
    // unencrypted document counts as opened by its owner).
    bool HasOwnerAccess() const;
    // Makes this document (a fresh copy of source, made by the page
    // importer) encrypted as source is: the same encryption dictionary
    // (method, permissions, both passwords), file identifier and key, so its
    // saves are encrypted exactly like saves of source. Nothing changes when
    // source is not encrypted. Document thread only.
    void KeepEncryptionOf(const PdfDocument& source);

    // For the engine's own use (importer, renderer).
    const std::shared_ptr<DocumentCore>& Core() const { return core_; }
    // After the page list changed: renumbers MuPDF's open pages to their new
    // places (an open page no longer in the tree gets number -1) and
    // re-reads the page count into the metadata. Document thread only.
    void RefreshPageCount();

private:
    struct Permissions {
        bool isProtected = false;
        bool editContent = false;
        bool editPages = false;
        bool extractPages = false;
        bool copyContent = false;
        bool print = false;
        bool printLowResolution = false;
        bool annotate = false;  // adding or changing annotations forbidden
        bool fillForm = false;  // filling in the form's fields forbidden
    };

    // The restrictions of the file as opened (owner access lifts them all).
    Permissions ReadPermissions(bool ownerAccess) const;
    // One flag of the metadata copy, under metaMutex_.
    bool Permission(bool Permissions::*flag) const;
    // Writes the document to path through a new file; version 0 keeps
    // the document's own header version.
    void SaveAs(const Orvane::ioPath& path, int version) const;
    // Writes the whole document to the new file open as fd.
    void WriteWhole(int fd, int version) const;
    // Takes ownership of the opened or created document (dropped on failure).
    void Adopt(fz_context* ctx, pdf_document* doc);

    std::shared_ptr<IFontProvider> fonts_;
    std::shared_ptr<DocumentCore> core_;

    mutable std::mutex metaMutex_;
    Orvane::ioPath path_;                      // guarded by metaMutex_
    unsigned pageCount_ = 0;                   // guarded by metaMutex_
    Permissions permissions_;                  // guarded by metaMutex_
    bool ownerAccess_ = true;                  // guarded by metaMutex_
    std::function<void()> formChangeHandler_;  // guarded by metaMutex_
};

// The engine's document behind document, for an operation that needs it
// (role names it in the message): std::invalid_argument for none, or for a
// document the engine did not make.
PdfDocument& EngineDocument(const std::shared_ptr<IDocument>& document, const char* role);

}  // namespace Orvane::PDF::Pdfium
