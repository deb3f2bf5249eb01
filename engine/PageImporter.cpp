// Copies pages between documents (or within one).
//
// Across documents every value a page refers to is copied through one
// grafter per call (Graft.h), so what several pages share (fonts, images, a
// common resource dictionary) arrives once, and a reference to a page of the
// source that is not copied never drags the source's page tree along. Within
// one document the copy is a new page dictionary that shares the original's
// indirect objects.
//
// A copied page gets its inherited attributes written into it, and copies of
// its annotations. What an annotation refers to outside itself is adjusted:
// /P names the new page, a popup is copied with its parent, a link to a page
// copied in the same call points at the copy. Across documents a link whose
// page stays behind is dropped (it would lead nowhere).
//
// Across documents the document-level parts that belong to the copied pages
// come along (DocumentParts.h): form fields with widgets on them (a widget
// whose field does not come along keeps its field's attributes, standalone),
// outline entries leading into them, their page labels. Copying every page in
// order into a document without pages copies the whole document: every
// catalog entry but the page tree, and the document information.

#include <glog/logging.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/DocumentParts.h"
#include "engine/Engine.h"
#include "engine/Graft.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/Nesting.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// ---- plain C helpers (they run inside guarded()) ----

// Values reaching deeper than this many indirect objects are not copied:
// saving the copy marks its objects recursively (the limit of a save).
constexpr int kMaxGraftDepth = 20000;

// What a copy into the target needs: the grafter's state (NULL within one
// document) and the nesting check of the source's objects.
struct Graft {
    GraftState* map;
    NestingCheck* check;
};

// A source value for the target: grafted across documents; within one
// document indirect objects are shared and direct ones copied, so that no
// direct object has two parents.
pdf_obj* transfer(fz_context* ctx, const Graft* graft, pdf_obj* value) {
    if (graft->map != NULL) {
        CheckNesting(ctx, graft->check, value);
        return GraftValue(ctx, graft->map, value);
    }
    if (pdf_is_indirect(ctx, value)) return pdf_keep_obj(ctx, value);
    return pdf_deep_copy_obj(ctx, value);
}

// Fills the new page dictionary from the source page: the inheritable
// attributes as the page sees them, and its own drawing-related entries
// (every entry but its tree links and annotations with all).
void fillPage(fz_context* ctx, const Graft* map, pdf_obj* source, pdf_obj* page, int all) {
    pdf_obj* const inherited[] = {PDF_NAME(Resources), PDF_NAME(MediaBox), PDF_NAME(CropBox), PDF_NAME(Rotate)};
    pdf_obj* const own[] = {PDF_NAME(Contents), PDF_NAME(BleedBox), PDF_NAME(TrimBox), PDF_NAME(ArtBox),
                            PDF_NAME(UserUnit), PDF_NAME(Group),    PDF_NAME(Dur),     PDF_NAME(Trans)};
    pdf_dict_put(ctx, page, PDF_NAME(Type), PDF_NAME(Page));
    for (size_t i = 0; i < sizeof inherited / sizeof *inherited; ++i) {
        pdf_obj* value = pdf_dict_get_inheritable(ctx, source, inherited[i]);
        if (value != NULL) pdf_dict_put_drop(ctx, page, inherited[i], transfer(ctx, map, value));
    }
    for (size_t i = 0; i < sizeof own / sizeof *own; ++i) {
        pdf_obj* value = pdf_dict_get(ctx, source, own[i]);
        if (value != NULL) pdf_dict_put_drop(ctx, page, own[i], transfer(ctx, map, value));
    }
    if (!all) return;
    const int n = pdf_dict_len(ctx, source);
    for (int i = 0; i < n; ++i) {
        pdf_obj* key = pdf_dict_get_key(ctx, source, i);
        if (pdf_name_eq(ctx, key, PDF_NAME(Parent)) || pdf_name_eq(ctx, key, PDF_NAME(Annots)) ||
            pdf_dict_get(ctx, page, key) != NULL)
            continue;
        pdf_dict_put_drop(ctx, page, key, transfer(ctx, map, pdf_dict_get_val(ctx, source, i)));
    }
}

// Keys an annotation copy never takes over as they are: its page, its place
// in a field or reply hierarchy, its popup and (unless the structure tree
// comes along) its place in the structure tree are the source's;
// destinations are mapped apart.
int isAdjustedKey(fz_context* ctx, pdf_obj* key, int keepStructure) {
    pdf_obj* const adjusted[] = {PDF_NAME(P), PDF_NAME(Parent), PDF_NAME(Popup), PDF_NAME(IRT),
                                 PDF_NAME(Dest), PDF_NAME(A)};
    for (size_t i = 0; i < sizeof adjusted / sizeof *adjusted; ++i) {
        if (pdf_name_eq(ctx, key, adjusted[i])) return 1;
    }
    return !keepStructure && pdf_name_eq(ctx, key, PDF_NAME(StructParent));
}

// Copies every entry of from into to, except the keys isAdjustedKey() names
// (all of them when skipAdjusted) or only /Parent and /P (otherwise).
void copyEntries(fz_context* ctx, const Graft* map, pdf_obj* from, pdf_obj* to, int skipAdjusted, int keepStructure) {
    const int n = pdf_dict_len(ctx, from);
    for (int i = 0; i < n; ++i) {
        pdf_obj* key = pdf_dict_get_key(ctx, from, i);
        if (skipAdjusted ? isAdjustedKey(ctx, key, keepStructure)
                         : (pdf_name_eq(ctx, key, PDF_NAME(Parent)) || pdf_name_eq(ctx, key, PDF_NAME(P)))) {
            continue;
        }
        pdf_dict_put_drop(ctx, to, key, transfer(ctx, map, pdf_dict_get_val(ctx, from, i)));
    }
}

// A widget's field attributes that it inherits from its field's hierarchy.
void copyFieldAttributes(fz_context* ctx, const Graft* map, pdf_obj* widget, pdf_obj* to) {
    pdf_obj* const keys[] = {PDF_NAME(FT), PDF_NAME(Ff), PDF_NAME(V),   PDF_NAME(DV),
                             PDF_NAME(DA), PDF_NAME(Q),  PDF_NAME(Opt), PDF_NAME(MaxLen)};
    for (size_t i = 0; i < sizeof keys / sizeof *keys; ++i) {
        if (pdf_dict_get(ctx, to, keys[i]) != NULL) continue;
        pdf_obj* value = pdf_dict_get_inheritable(ctx, widget, keys[i]);
        if (value != NULL) pdf_dict_put_drop(ctx, to, keys[i], transfer(ctx, map, value));
    }
}

// ---- one import call ----

struct AnnotationInfo {
    int isDict;
    int isPopup;
    int isWidget;
    int isLink;
};

class Import {
public:
    Import(fz_context* ctx, pdf_document* source, pdf_document* target, bool whole)
        : ctx_(ctx), source_(source), target_(target), whole_(whole) {
        if (source != target) {
            grafter_ = std::make_unique<Grafter>(ctx, source, target);
            nesting_ = std::make_unique<Nesting>(ctx, source, kMaxGraftDepth, false);
            graft_ = Graft{grafter_->State(), nesting_->State()};
        }
    }

    // A new, still empty page object in the target for the source page,
    // recorded as its copy (the first copy wins for pages listed twice).
    // All are made before any is filled, so what one page refers to on
    // another finds the copy.
    PdfObjHandle ReservePage(pdf_obj* sourcePage) {
        PdfObjHandle ref(ctx_, guarded(ctx_, [&] {
            return pdf_new_indirect(ctx_, target_, pdf_create_object(ctx_, target_), 0);
        }));
        const int num = guarded(ctx_, [&] { return pdf_to_num(ctx_, sourcePage); });
        if (pages_.emplace(num, ref.get()).second && grafter_) {
            grafter_->Map(num, guarded(ctx_, [&] { return pdf_to_num(ctx_, ref.get()); }));
        }
        return ref;
    }

    // Fills the reserved page from the source page (without annotations).
    void FillPage(pdf_obj* sourcePage, pdf_obj* ref) {
        PdfObjHandle page(ctx_, guarded(ctx_, [&] { return pdf_new_dict(ctx_, target_, 12); }));
        guarded(ctx_, [&] {
            fillPage(ctx_, &graft_, sourcePage, page.get(), whole_);
            pdf_update_object(ctx_, target_, pdf_to_num(ctx_, ref), page.get());
        });
    }

    // Gives the new page copies of the source page's annotations. One that
    // cannot be copied is logged and left out.
    void CopyAnnotations(pdf_obj* sourcePage, pdf_obj* newPage, int pageNumber) {
        const int count =
            guarded(ctx_, [&] { return pdf_array_len(ctx_, pdf_dict_get(ctx_, sourcePage, PDF_NAME(Annots))); });
        if (count <= 0) return;
        PdfObjHandle annots(ctx_, guarded(ctx_, [&] { return pdf_new_array(ctx_, target_, count); }));
        for (int i = 0; i < count; ++i) {
            try {
                pdf_obj* annot = guarded(
                    ctx_, [&] { return pdf_array_get(ctx_, pdf_dict_get(ctx_, sourcePage, PDF_NAME(Annots)), i); });
                for (PdfObjHandle& copy : CopyAnnotation(annot, newPage)) {
                    guarded(ctx_, [&] { pdf_array_push(ctx_, annots.get(), copy.get()); });
                }
            } catch (const Orvane::Exception& e) {
                LOG(WARNING) << "left out annotation " << i + 1 << " of imported page " << pageNumber + 1 << ": "
                             << e.what();
            }
        }
        guarded(ctx_, [&] {
            if (pdf_array_len(ctx_, annots.get()) > 0) pdf_dict_put(ctx_, newPage, PDF_NAME(Annots), annots.get());
        });
    }

    // Across documents: the document-level parts of the copied pages, then
    // every object they reach. Widgets that did not become part of a copied
    // field keep their field's attributes.
    void Finish(const PartsCopy& parts) {
        if (!grafter_) return;
        std::vector<unsigned char> placed;
        CopyDocumentParts(ctx_, *grafter_, parts, placed);
        for (const Widget& widget : widgets_) {
            const int num = guarded(ctx_, [&] { return pdf_to_num(ctx_, widget.source.get()); });
            if (num > 0 && size_t(num) < placed.size() && placed[size_t(num)]) continue;
            guarded(ctx_, [&] { copyFieldAttributes(ctx_, &graft_, widget.source.get(), widget.copy.get()); });
            CopyFieldName(widget.source.get(), widget.copy.get());
        }
        grafter_->Drain();
        if (whole_ && source_->version > target_->version) target_->version = source_->version;
    }

private:
    // The copies to add to the new page's /Annots (the annotation and its
    // popup), or none when the annotation is left out.
    std::vector<PdfObjHandle> CopyAnnotation(pdf_obj* annot, pdf_obj* newPage) {
        const AnnotationInfo info = guarded(ctx_, [&] {
            AnnotationInfo result;
            pdf_obj* subtype = pdf_dict_get(ctx_, annot, PDF_NAME(Subtype));
            result.isDict = pdf_is_dict(ctx_, annot);
            result.isPopup = pdf_name_eq(ctx_, subtype, PDF_NAME(Popup));
            result.isWidget = pdf_name_eq(ctx_, subtype, PDF_NAME(Widget));
            result.isLink = pdf_name_eq(ctx_, subtype, PDF_NAME(Link));
            return result;
        });
        // A popup comes along with the annotation it belongs to.
        if (!info.isDict || info.isPopup) return {};

        PdfObjHandle copy(ctx_, guarded(ctx_, [&] { return pdf_new_dict(ctx_, target_, 8); }));
        guarded(ctx_, [&] { copyEntries(ctx_, &graft_, annot, copy.get(), 1, whole_); });
        // Within one document a widget copy stands alone with its field's
        // attributes; across documents it joins its copied field or takes
        // them then (Finish).
        const bool standalone = info.isWidget && !grafter_;
        if (standalone) {
            guarded(ctx_, [&] { copyFieldAttributes(ctx_, &graft_, annot, copy.get()); });
            CopyFieldName(annot, copy.get());
        }

        pdf_obj* dest = guarded(ctx_, [&] { return pdf_dict_get(ctx_, annot, PDF_NAME(Dest)); });
        if (dest != nullptr) {
            PdfObjHandle mapped = MapDestination(dest);
            if (!mapped) {
                VLOG(1) << "a link's page is not imported; the link is left out";
                return {};
            }
            guarded(ctx_, [&] { pdf_dict_put(ctx_, copy.get(), PDF_NAME(Dest), mapped.get()); });
        }
        pdf_obj* action = guarded(ctx_, [&] { return pdf_dict_get(ctx_, annot, PDF_NAME(A)); });
        if (action != nullptr && !CopyAction(action, copy.get()) && info.isLink) {
            VLOG(1) << "a link's page is not imported; the link is left out";
            return {};
        }

        PdfObjHandle popupCopy;
        pdf_obj* popup = guarded(ctx_, [&] {
            pdf_obj* p = pdf_dict_get(ctx_, annot, PDF_NAME(Popup));
            return pdf_is_dict(ctx_, p) ? p : NULL;
        });
        if (popup != nullptr) {
            popupCopy = PdfObjHandle(ctx_, guarded(ctx_, [&] { return pdf_new_dict(ctx_, target_, 6); }));
            guarded(ctx_, [&] { copyEntries(ctx_, &graft_, popup, popupCopy.get(), 0, whole_); });
        }

        guarded(ctx_, [&] { pdf_dict_put(ctx_, copy.get(), PDF_NAME(P), newPage); });
        std::vector<PdfObjHandle> result;
        result.emplace_back(ctx_, guarded(ctx_, [&] { return pdf_add_object(ctx_, target_, copy.get()); }));
        if (popupCopy) {
            pdf_obj* parent = result.front().get();
            guarded(ctx_, [&] {
                pdf_dict_put(ctx_, popupCopy.get(), PDF_NAME(P), newPage);
                pdf_dict_put(ctx_, popupCopy.get(), PDF_NAME(Parent), parent);
            });
            result.emplace_back(ctx_, guarded(ctx_, [&] { return pdf_add_object(ctx_, target_, popupCopy.get()); }));
            pdf_obj* popupRef = result.back().get();
            guarded(ctx_, [&] { pdf_dict_put(ctx_, parent, PDF_NAME(Popup), popupRef); });
            MapObject(popup, popupRef);
        }
        MapObject(annot, result.front().get());
        if (info.isWidget && grafter_) {
            widgets_.push_back({PdfObjHandle(ctx_, guarded(ctx_, [&] { return pdf_keep_obj(ctx_, annot); })),
                                PdfObjHandle(ctx_, guarded(ctx_, [&] { return pdf_keep_obj(ctx_, result.front().get()); }))});
        }
        return result;
    }

    // What refers to the source's annotation (its field, the structure tree)
    // finds the copy.
    void MapObject(pdf_obj* source, pdf_obj* copy) {
        if (!grafter_) return;
        const int from = guarded(ctx_, [&] { return pdf_is_indirect(ctx_, source) ? pdf_to_num(ctx_, source) : 0; });
        if (from > 0 && grafter_->Mapped(from) == 0) grafter_->Map(from, guarded(ctx_, [&] { return pdf_to_num(ctx_, copy); }));
    }

    // A widget without a field hierarchy keeps its field's full name.
    void CopyFieldName(pdf_obj* widget, pdf_obj* copy) {
        struct Free {
            fz_context* ctx;
            void operator()(char* text) const { fz_free(ctx, text); }
        };
        const std::unique_ptr<char, Free> name(guarded(ctx_, [&] { return pdf_field_name(ctx_, widget); }), Free{ctx_});
        if (!name || *name == '\0') return;
        guarded(ctx_, [&] { pdf_dict_put_text_string(ctx_, copy, PDF_NAME(T), name.get()); });
    }

    // Puts the annotation's action into the copy, a GoTo with its destination
    // mapped. False when a GoTo's page is not imported (the action is left out).
    bool CopyAction(pdf_obj* action, pdf_obj* copy) {
        const int goTo =
            guarded(ctx_, [&] { return pdf_name_eq(ctx_, pdf_dict_get(ctx_, action, PDF_NAME(S)), PDF_NAME(GoTo)); });
        if (!goTo) {
            guarded(ctx_, [&] { pdf_dict_put_drop(ctx_, copy, PDF_NAME(A), transfer(ctx_, &graft_, action)); });
            return true;
        }
        pdf_obj* dest = guarded(ctx_, [&] { return pdf_dict_get(ctx_, action, PDF_NAME(D)); });
        PdfObjHandle mapped = dest != nullptr ? MapDestination(dest) : PdfObjHandle();
        if (!mapped) return false;
        PdfObjHandle newAction(ctx_, guarded(ctx_, [&] { return pdf_new_dict(ctx_, target_, 2); }));
        guarded(ctx_, [&] {
            pdf_dict_put(ctx_, newAction.get(), PDF_NAME(S), PDF_NAME(GoTo));
            pdf_dict_put(ctx_, newAction.get(), PDF_NAME(D), mapped.get());
            pdf_dict_put(ctx_, copy, PDF_NAME(A), newAction.get());
        });
        return true;
    }

    // The destination for the target: within one document the same one;
    // across documents an explicit destination whose page is copied in this
    // call, pointing at the copy. Named destinations are resolved in the
    // source first (the target does not know the name). Empty when the
    // destination cannot lead anywhere in the target.
    PdfObjHandle MapDestination(pdf_obj* dest) {
        if (graft_.map == nullptr) return PdfObjHandle(ctx_, guarded(ctx_, [&] { return transfer(ctx_, &graft_, dest); }));
        const bool named = guarded(ctx_, [&] { return pdf_is_name(ctx_, dest) || pdf_is_string(ctx_, dest); });
        pdf_obj* explicitDest = guarded(ctx_, [&] {
            pdf_obj* d = dest;
            if (pdf_is_name(ctx_, d) || pdf_is_string(ctx_, d)) d = LookupNamedDestination(ctx_, source_, d);
            if (pdf_is_dict(ctx_, d)) d = pdf_dict_get(ctx_, d, PDF_NAME(D));
            return pdf_is_array(ctx_, d) ? d : NULL;
        });
        if (explicitDest == nullptr) return {};
        struct Target {
            int pageNum;
            int length;
        };
        const Target target = guarded(ctx_, [&] {
            Target t;
            pdf_obj* page = pdf_array_get(ctx_, explicitDest, 0);
            t.pageNum = pdf_is_indirect(ctx_, page) ? pdf_to_num(ctx_, page) : 0;
            t.length = pdf_array_len(ctx_, explicitDest);
            return t;
        });
        const auto place = pages_.find(target.pageNum);
        if (target.pageNum == 0 || place == pages_.end()) return {};
        // A whole copy carries the names along.
        if (named && whole_) return PdfObjHandle(ctx_, guarded(ctx_, [&] { return pdf_keep_obj(ctx_, dest); }));
        pdf_obj* newPage = place->second;
        PdfObjHandle mapped(ctx_, guarded(ctx_, [&] { return pdf_new_array(ctx_, target_, target.length); }));
        guarded(ctx_, [&] {
            pdf_array_push(ctx_, mapped.get(), newPage);
            for (int i = 1; i < target.length; ++i) {
                pdf_array_push_drop(ctx_, mapped.get(),
                                    transfer(ctx_, &graft_, pdf_array_get(ctx_, explicitDest, i)));
            }
        });
        return mapped;
    }

    struct Widget {
        PdfObjHandle source;
        PdfObjHandle copy;
    };

    fz_context* ctx_;
    pdf_document* source_;
    pdf_document* target_;
    const bool whole_;
    std::unique_ptr<Grafter> grafter_;  // empty within one document
    std::unique_ptr<Nesting> nesting_;  // empty within one document
    Graft graft_{nullptr, nullptr};
    std::vector<Widget> widgets_;  // across documents: the widgets copied
    // Source page object number -> its copy in the target.
    std::unordered_map<int, pdf_obj*> pages_;
};

class PageImporter : public IPageImporter {
public:
    void ImportPages(const std::shared_ptr<IDocument>& source, const std::vector<unsigned>& pages,
                     const std::shared_ptr<IDocument>& target, int insertIndex) override {
        PdfDocument& from = EngineDocument(source, "source");
        PdfDocument& into = EngineDocument(target, "target");
        const RequestBudget budget;
        fz_context* ctx = into.Core()->ctx;
        if (from.Core()->ctx != ctx) throw Orvane::Exception("the documents of an import belong to different threads");
        pdf_document* src = from.Core()->doc;
        pdf_document* dst = into.Core()->doc;

        const int sourceCount = PageCount(ctx, src);
        for (unsigned page : pages) {
            if (page >= unsigned(std::max(sourceCount, 0))) {
                throw std::out_of_range("no page " + std::to_string(page) + " in a source of " +
                                        std::to_string(sourceCount) + " pages");
            }
        }
        if (pages.empty()) return;

        // Taken before anything is inserted: within one document the
        // insertion moves the source's pages. One walk of the tree for all.
        const PageTree sourceTree = ReadPageTree(ctx, src);
        std::vector<PdfObjHandle> sourcePages;
        sourcePages.reserve(pages.size());
        for (unsigned page : pages) {
            pdf_obj* obj = PageObject(ctx, src, sourceTree, int(page));
            sourcePages.emplace_back(ctx, guarded(ctx, [&] { return pdf_keep_obj(ctx, obj); }));
        }

        const int targetCount = PageCount(ctx, dst);
        const int at = insertIndex < 0 || insertIndex > targetCount ? targetCount : insertIndex;
        // The copies join the target's page tree at the end, in one step:
        // a failure before leaves the target's pages as they were.
        // Every page in order into a document without pages: a copy of the
        // whole document.
        bool whole = src != dst && targetCount == 0 && int(pages.size()) == sourceCount;
        for (size_t k = 0; whole && k < pages.size(); ++k) whole = pages[k] == k;
        Import import(ctx, src, dst, whole);
        std::vector<PdfObjHandle> newPages;
        newPages.reserve(pages.size());
        for (size_t k = 0; k < sourcePages.size(); ++k) newPages.push_back(import.ReservePage(sourcePages[k].get()));
        for (size_t k = 0; k < sourcePages.size(); ++k) import.FillPage(sourcePages[k].get(), newPages[k].get());
        for (size_t k = 0; k < sourcePages.size(); ++k) {
            import.CopyAnnotations(sourcePages[k].get(), newPages[k].get(), int(pages[k]));
        }
        PartsCopy parts;
        parts.whole = whole;
        parts.at = at;
        parts.targetPages = targetCount;
        parts.sourceName = from.GetDocumentPath().path().stem().string();
        for (size_t k = 0; k < pages.size(); ++k) {
            parts.pages.push_back(int(pages[k]));
            parts.pageObjects.push_back(guarded(ctx, [&] { return pdf_to_num(ctx, sourcePages[k].get()); }));
        }
        import.Finish(parts);
        std::vector<pdf_obj*> inserted;
        inserted.reserve(newPages.size());
        for (const PdfObjHandle& page : newPages) inserted.push_back(page.get());
        InsertPages(ctx, dst, at, inserted);
        into.RefreshPageCount();
    }

    void ImportAllPages(const std::shared_ptr<IDocument>& source, const std::shared_ptr<IDocument>& target,
                        int insertIndex) override {
        PdfDocument& from = EngineDocument(source, "source");
        EngineDocument(target, "target");
        fz_context* ctx = from.Core()->ctx;
        pdf_document* src = from.Core()->doc;
        // The pages the tree holds: a count its nodes claim is no bound.
        const int count = PagesHeld(ctx, src, ReadPageTree(ctx, src));
        std::vector<unsigned> pages(size_t(std::max(count, 0)));
        for (size_t i = 0; i < pages.size(); ++i) pages[i] = unsigned(i);
        ImportPages(source, pages, target, insertIndex);
    }
};

}  // namespace

std::unique_ptr<IPageImporter> CreatePageImporter() {
    return std::make_unique<PageImporter>();
}

}  // namespace Orvane::PDF::Pdfium
