#pragma once

// A page's annotations read from the PDF objects, created, changed and
// deleted through MuPDF's annotation calls (appearances generated at once),
// and the incremental save that appends a document's changes to the bytes of
// the file it was opened from. Document thread only.

#include <cstdint>
#include <filesystem>
#include <vector>

#include "orvane/pdf/Document.h"
#include "orvane/pdf/IAnnotationProvider.h"

struct fz_context;
struct pdf_document;

namespace Orvane::PDF::Pdfium {

struct DocumentCore;
struct DocumentCoreSource;

// ---- reading (AnnotationList.cpp) ----

// Every annotation of the page in the order of its /Annots. An entry that is
// no dictionary is skipped. std::invalid_argument for a document that is not
// one of this engine's, std::out_of_range for a page out of range.
std::vector<Annotation> ListAnnotations(const IDocument& document, unsigned page);
// The annotation type number of a /Subtype name (0 for any other).
int AnnotationTypeOf(const char* subtype);
// The /Subtype name of a type number; nullptr for 0 and numbers past the last.
const char* AnnotationSubtypeName(int type);

// ---- editing (AnnotationEdits.cpp) ----

// Each marks the document changed and remembers the annotation as one a
// user made (RemoveHiddenObjects keeps it). std::invalid_argument naming a
// malformed field or an unknown annotation.
int64_t CreateAnnotation(IDocument& document, unsigned page, const NewAnnotation& annotation);
void ChangeAnnotation(IDocument& document, unsigned page, int64_t id, const AnnotationChange& change);
// Deletes the annotation, its popup and its replies (and theirs).
void DeleteAnnotation(IDocument& document, unsigned page, int64_t id);

// ---- hidden annotations (HiddenAnnotations.cpp) ----

// Where RemoveHiddenAnnotations looks: every page of the document, or what
// a save appended to the file writes (the objects changed since the open):
// the pages among them and the pages of hidden annotations among them.
enum class HiddenScope { Document, Update };
// Removes the never-visible annotations PdfDocument::RemoveHiddenObjects
// describes from the pages of scope (the whole document when it has no
// update). Whether something could show them is always asked of the whole
// document.
void RemoveHiddenAnnotations(DocumentCore& core, HiddenScope scope);

// ---- incremental save (IncrementalSave.cpp) ----

// The file at path as it is now (read before MuPDF opens it).
DocumentCoreSource ReadSourceFile(const std::filesystem::path& path);
// Whether a save to target can append the document's changes to the bytes
// it was opened from: target is that file, unchanged on disk since it was
// opened (or since this document last appended to it), and MuPDF can express
// the changes as an update (not a repaired file, no redaction, no mix of
// cross-reference kinds).
bool CanAppendTo(const DocumentCore& core, const std::filesystem::path& target);
// Writes the original bytes and then the update section into the new file
// open as fd (the original bytes alone when nothing changed). Throws
// Orvane::Exception on failure.
void WriteAppended(DocumentCore& core, int fd);
// After a save to target: an appended save makes the file's new state the
// one later saves compare against; a rewrite of the source file ends
// appending to it.
void NoteSaved(DocumentCore& core, const std::filesystem::path& target, bool appended);

}  // namespace Orvane::PDF::Pdfium
