// A document's permissions from its encryption dictionary, and keeping
// another document's encryption for a document made from its pages.

#include <mupdf/pdf.h>

#include <cstdint>
#include <cstring>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

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

}  // namespace

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
    // Annotating allows filling in; from revision 3 on, bit 9 allows it alone.
    result.fillForm = !bit(p, 6) && (revision2 || !bit(p, 9));
    return result;
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

}  // namespace Orvane::PDF::Pdfium
