#pragma once

// The document engine's interfaces as an application sees them (through
// IPDFProvider::ExecuteWithDocument and GetPageTextObject). Every object is
// made and used on the service's worker thread, except where a method says
// otherwise. Failures are exceptions: std::runtime_error for a missing,
// unreadable or non-PDF file, std::logic_error("PASSWORD_ERROR") for a missing
// or wrong password, std::out_of_range for a page index out of range and
// Orvane::Exception for any other engine failure.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvane/IoPath.h"
#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

// Resolves fonts that a PDF names but does not embed.
class IFontProvider {
public:
    virtual ~IFontProvider() = default;
    // Path of a font file for the family and style, or empty if there is none.
    // Called on a worker while it opens or draws a page: it must not wait for
    // another thread that is starting to use the engine (another service's
    // requests, say).
    virtual std::string FindFontFile(const std::string& family, bool bold, bool italic) const = 0;
};

class IFontProviderFactory {
public:
    virtual ~IFontProviderFactory() = default;
    // Called once by each service's worker thread when it starts.
    virtual std::shared_ptr<IFontProvider> CreateFontProvider() = 0;
};

// Pixels the engine draws into or reads from.
class IBitmap {
public:
    enum DibFormat : int32_t {
        Unknown = 0,
        Gray = 1,  // 8 bits a pixel
        Bgr = 2,   // 24 bits a pixel, B G R in memory
        Bgrx = 3,  // 32 bits a pixel, B G R x in memory (QImage::Format_RGB32)
        Bgra = 4,  // 32 bits a pixel, B G R A in memory, not premultiplied (QImage::Format_ARGB32)
    };

    virtual ~IBitmap() = default;
    virtual Size GetSize() const = 0;
    // Fills the rectangle (pixels, origin top-left, clipped to the bitmap)
    // with one colour given as 0xAARRGGBB.
    virtual void FillRect(int left, int top, int width, int height, uint32_t argb) = 0;
    virtual DibFormat GetFormat() const = 0;
    virtual int GetStride() const = 0;
    virtual unsigned char* GetBuffer() = 0;
    virtual const unsigned char* GetBuffer() const = 0;
};

class IPageObject {
public:
    enum Kind : int32_t { Unknown = 0, Text = 1, Path = 2, Image = 3, Shading = 4, Form = 5 };

    virtual ~IPageObject() = default;
    virtual Rect GetBounds() = 0;
    virtual Kind GetKind() const = 0;
};

class IAnnotation {
public:
    // PDF subtypes in the order of the PDF reference; Unknown for any other.
    enum Type : int32_t {
        Unknown = 0,
        Text = 1,
        Link = 2,
        FreeText = 3,
        Line = 4,
        Square = 5,
        Circle = 6,
        Polygon = 7,
        PolyLine = 8,
        Highlight = 9,
        Underline = 10,
        Squiggly = 11,
        StrikeOut = 12,
        Stamp = 13,
        Caret = 14,
        Ink = 15,
        Popup = 16,
        FileAttachment = 17,
        Sound = 18,
        Movie = 19,
        Widget = 20,
        Screen = 21,
        PrinterMark = 22,
        TrapNet = 23,
        Watermark = 24,
        ThreeD = 25,
        RichMedia = 26,
        XFAWidget = 27,
        Redact = 28,
    };

    virtual ~IAnnotation() = default;
    virtual Type GetType() const = 0;
    // Whether the page point lies in the annotation's rectangle (edges included).
    virtual bool Contains(const Position& point) const = 0;
    virtual Rect GetRect() const = 0;
};

// Where an in-document link leads. x and y are the destination's left and top
// in the target page's space (0 where unset); zoom is a factor, 0 where the
// destination keeps the current zoom.
struct LinkDestination {
    int pageIndex = -1;
    double x = 0.0;
    double y = 0.0;
    float zoom = 1.0f;
};

class ILinkAnnotation : public virtual IAnnotation {
public:
    enum LinkType : int { Other = 0, Uri = 1, Destination = 2 };

    virtual int GetLinkType() = 0;
    virtual LinkDestination GetDestination() = 0;
    virtual std::string GetUri() = 0;
};

// A page's text, copied out of the engine: it may be kept and used from any
// thread after the page and the document are gone.
class ITextObject {
public:
    enum FindFlags : int {
        MatchCase = 1,
        WholeWords = 2,
        Overlapping = 4,
        IgnoreDiacritics = 8,
    };

    virtual ~ITextObject() = default;
    // Matches in reading order. Flags 0: case-insensitive, a run of white space
    // in the needle matches any run of white space or a line break, a word
    // hyphenated at a line end matches unhyphenated, hits do not overlap.
    virtual std::vector<SearchResultInfo> FindText(const std::wstring& text, int flags) const = 0;
    // The page text: each line's characters followed by '\n'.
    virtual std::wstring GetText() const = 0;
    virtual int GetCharCount() const = 0;
    // The box of one character of GetText() (a line break has an empty box).
    virtual Rect GetCharBox(int charIndex) const = 0;
    // One rectangle per text line covered by the characters, for highlighting.
    virtual std::vector<Rect> GetTextRects(int charIndex, int charCount) const = 0;
};

class IPage {
public:
    // Quarter turns clockwise, as the PDF /Rotate.
    enum Rotation : int32_t { Rotate0 = 0, Rotate90 = 1, Rotate180 = 2, Rotate270 = 3 };

    virtual ~IPage() = default;
    // The crop box's size as displayed: width and height swap at 90 and 270.
    virtual Size GetSize() const = 0;
    // The crop box in page space.
    virtual Rect GetPageRect() const = 0;
    virtual Rotation GetRotation() = 0;
    virtual void SetRotation(Rotation rotation) = 0;
    // Indices (for GetObject) of the page's text objects.
    virtual std::vector<int> GetObjectIndices() = 0;
    virtual int GetObjectCount() = 0;
    // Throws std::out_of_range for an index outside [0, GetObjectCount()).
    virtual std::unique_ptr<IPageObject> GetObject(int index) = 0;
    virtual std::shared_ptr<ITextObject> GetTextObject() = 0;
    // Annotations of one subtype (IAnnotation::Type), in page order.
    virtual std::vector<std::shared_ptr<IAnnotation>> GetAnnotations(int subtype) = 0;
    virtual std::vector<std::shared_ptr<IAnnotation>> GetAllAnnotations() = 0;
    // Bounds of the topmost object of the kind (IPageObject::Kind) whose
    // bounds hold the page point, if there is one.
    virtual std::optional<Rect> GetObjectBoundsAt(double x, double y, int kind) = 0;
};

class IDocument {
public:
    virtual ~IDocument() = default;
    // Makes every page carry its inherited attributes (resources, boxes,
    // rotation) so that pages can be moved and copied alone.
    virtual void FixupDocument() const = 0;
    // Writes the whole document to path through a temporary file beside it;
    // the target is replaced only once the new file is complete.
    virtual void Save(const Orvane::ioPath& path, unsigned long flags) const = 0;
    // As Save, with the header's version as 10 * major + minor (17 is 1.7).
    virtual void SaveWithVersion(const Orvane::ioPath& path, int version, unsigned long flags) const = 0;

    // The metadata below may be read from any thread, also while the worker
    // changes the document; it is kept current under the document's own lock.
    virtual void SetDocumentPath(const Orvane::ioPath& path) = 0;
    virtual Orvane::ioPath GetDocumentPath() const = 0;
    virtual unsigned GetPageCount() const = 0;
    virtual bool IsProtected() const = 0;
    virtual bool IsEditContentProtected() const = 0;
    virtual bool IsEditPagesProtected() const = 0;
    virtual bool IsExtractingPagesProtected() const = 0;
    virtual bool IsCopyTextAndGraphicsProtected() const = 0;
    virtual bool IsPrintProtected() const = 0;
    virtual bool IsPrintLowResolution() const = 0;

    // Page list. An insertion index from 0 to the page count inserts before
    // that page; any larger one appends. Indices of existing pages out of
    // range throw std::out_of_range.
    virtual std::shared_ptr<IPage> GetPage(unsigned index) const = 0;
    virtual std::shared_ptr<IPage> CreatePage(unsigned index, double width, double height) = 0;
    // The page shows the bitmap scaled to width x height points; the picture
    // is stored compressed and keeps its alpha channel.
    virtual std::shared_ptr<IPage> CreatePageFromImage(unsigned index, const std::shared_ptr<IBitmap>& image,
                                                       double width, double height) = 0;
    virtual void DeletePage(unsigned index) = 0;
    // Drops page content that can never show or print (conservative: no page
    // changes what it shows or prints).
    virtual void RemoveHiddenObjects() = 0;
    virtual void SetFormOnChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace Orvane::PDF
