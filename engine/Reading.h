#pragma once

// What a reader shows beyond the pages: the outline, the page labels and the
// document's information, read from the PDF objects; text selection over a
// page's text object; tiles drawn from a page's recording. Document and page
// work runs on the document's thread.

#include <QImage>
#include <memory>
#include <string>
#include <vector>

#include "orvane/pdf/Document.h"
#include "orvane/pdf/IReadingProvider.h"

namespace Orvane::PDF::Pdfium {

// ---- outline (Outline.cpp) ----

// An outline nested deeper than this is cut there.
constexpr int kMaxOutlineDepth = 64;
// An outline with more entries than this is cut there.
constexpr size_t kMaxOutlineEntries = 1'000'000;

// The outline from the catalog's /Outlines, walked by hand: an entry seen
// before (a loop of /Next or /First) and entries nested deeper than
// kMaxOutlineDepth are cut with a log line. std::invalid_argument for a
// document that is not one of this engine's.
std::vector<OutlineEntry> ReadOutline(const IDocument& document);

// ---- page labels (PageLabels.cpp) ----

// Every page's label from the catalog's /PageLabels number tree; the page
// number from 1 where the tree gives none.
std::vector<std::string> ReadPageLabels(const IDocument& document);
// One label: prefix, then number in style ('D' decimal, 'R'/'r' roman, 'A'/'a'
// letters, anything else no number).
std::string FormatPageLabel(char style, const std::string& prefix, long long number);
// The page a typed label names in labels (see IReadingProvider::FindPageByLabel).
int FindPageByLabel(const std::vector<std::string>& labels, const std::string& label);

// ---- document information (DocumentInfo.cpp) ----

DocumentInformation ReadDocumentInformation(const IDocument& document);
// A PDF date ("D:YYYYMMDDHHmmSSOHH'mm'", everything after the year optional).
DocumentDate ParsePdfDate(const std::string& raw);

// ---- selection (Selection.cpp), on a page's text: any thread ----

TextSelection SelectBetween(const ITextObject& text, const Position& from, const Position& to);
TextSelection SelectWordAt(const ITextObject& text, const Position& at);
TextSelection SelectLineAt(const ITextObject& text, const Position& at);
TextSelection SelectAllText(const ITextObject& text);
// The characters [first, first + count) for copying: ligatures spelt out,
// soft hyphens dropped, a word hyphenated at a line end joined.
std::string CopyText(const ITextObject& text, int first, int count);

// ---- tiles (Tiles.cpp) ----

// Tiles above this many pixels are refused.
constexpr double kMaxTilePixels = 64.0 * 1024 * 1024;

// The tile of page for region at scale (see IReadingProvider::GenerateTile),
// Format_RGB32, drawn from the page's recording. Throws std::invalid_argument
// for a malformed region or scale, Orvane::Exception when the page cannot be
// drawn.
QImage RenderTile(const std::shared_ptr<IPage>& page, const Rect& region, double scale, bool print);

}  // namespace Orvane::PDF::Pdfium
