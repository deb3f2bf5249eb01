#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "orvane/IoPath.h"
#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

struct DocumentCore;

// A PDF document on MuPDF. Made, used and destroyed on one thread (the one
// whose context opened it); the metadata queries alone may come from any
// thread and are answered from a copy kept current under metaMutex.
class PdfDocument : public IDocument {
public:
    // A new, empty document without pages and without a path.
    explicit PdfDocument(const std::shared_ptr<IFontProvider>& fonts);
    // Opens and parses the file. Throws std::runtime_error for a missing,
    // unreadable or damaged non-PDF file, std::logic_error("PASSWORD_ERROR")
    // for a missing or wrong password; the owner or the user password opens it.
    PdfDocument(const std::shared_ptr<IFontProvider>& fonts, const Orvane::ioPath& path,
                const std::string& password);
    ~PdfDocument() override;
    PdfDocument(const PdfDocument&) = delete;
    PdfDocument& operator=(const PdfDocument&) = delete;

    void FixupDocument() const override;
    void Save(const Orvane::ioPath& path, unsigned long flags) const override;
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
    std::shared_ptr<IPage> GetPage(unsigned index) const override;
    std::shared_ptr<IPage> CreatePage(unsigned index, double width, double height) override;
    std::shared_ptr<IPage> CreatePageFromImage(unsigned index, const std::shared_ptr<IBitmap>& image, double width,
                                               double height) override;
    void DeletePage(unsigned index) override;
    void RemoveHiddenObjects() override;
    void SetFormOnChangeHandler(std::function<void()> handler) override;

    // For the engine's own use (importer, renderer).
    const std::shared_ptr<DocumentCore>& Core() const { return core_; }
    // Re-reads the page count into the metadata after the page list changed.
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
    };

    Permissions ReadPermissions(bool ownerAccess) const;

    std::shared_ptr<IFontProvider> fonts_;
    std::shared_ptr<DocumentCore> core_;

    mutable std::mutex metaMutex_;
    Orvane::ioPath path_;           // guarded by metaMutex_
    unsigned pageCount_ = 0;        // guarded by metaMutex_
    Permissions permissions_;       // guarded by metaMutex_
    std::function<void()> formChangeHandler_;  // guarded by metaMutex_
};

}  // namespace Orvane::PDF::Pdfium
