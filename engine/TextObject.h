#pragma once

// A page's text as plain data: the characters in MuPDF's reading order, one
// box per character in page space and the line structure. Once made it holds
// no MuPDF reference and is immutable, so it can be used from any thread.

#include <memory>
#include <string>
#include <vector>

#include "orvane/pdf/Document.h"

struct fz_context;
struct pdf_page;

namespace Orvane::PDF::Pdfium {

class TextObject : public ITextObject {
public:
    // text holds each line's characters followed by '\n'; boxes has one entry
    // per character of text (a line break gets an empty box); lineStarts the
    // index in text of each line's first character, ascending.
    TextObject(std::wstring text, std::vector<Rect> boxes, std::vector<int> lineStarts);

    std::vector<SearchResultInfo> FindText(const std::wstring& text, int flags) const override;
    std::wstring GetText() const override { return text_; }
    int GetCharCount() const override { return static_cast<int>(text_.size()); }
    Rect GetCharBox(int charIndex) const override;
    std::vector<Rect> GetTextRects(int charIndex, int charCount) const override;

private:
    Rect BoundsOf(int first, int end) const;

    std::wstring text_;
    std::vector<Rect> boxes_;
    std::vector<int> lineStarts_;
};

// A page's or a needle's character as the matcher takes it: an invalid code
// point is U+FFFD, a control character other than a tab a space.
wchar_t TextChar(int c);

// The letters a ligature stands for, as the matcher spells it out
// ("\uFB01" -> "fi"); any other character as it is.
std::wstring SpellLigature(wchar_t c);

// Extracts the text of the page's content stream (annotations not included).
// Throws Orvane::Exception when MuPDF fails or the limits cut the run short.
class PdfPage;
std::shared_ptr<ITextObject> ExtractText(const PdfPage& page);

}  // namespace Orvane::PDF::Pdfium
