#pragma once

// The annotations people make on a page: listed with what the file holds,
// created from a selection, a point, strokes or a rectangle, changed and
// deleted. Every change generates the annotation's appearance at once and
// marks the document changed: no picture, tile or recorded page made after
// it shows the old state.
//
// Every operation is queued to the service's worker and answered through a
// std::future. Listing and changes share one queue, served right after page
// rotation: a list asked for after a change sees it. Through the future: an
// id that is not open gives std::invalid_argument("Invalid doc handle"), a
// page out of range std::out_of_range, a malformed argument or an unknown
// annotation std::invalid_argument naming it, an engine failure
// Orvane::Exception.
//
// An annotation's id is its object number: stable while the document is open
// and after a save and reopen. An annotation the file writes directly into
// the page's list (no object of its own) has the id -(its place in the list
// + 1), valid until the page's list changes. Text is UTF-8; points and
// rectangles are in page space; pages are counted from 0. Colours are
// 0xRRGGBB.

#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "orvane/pdf/IReadingProvider.h"
#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

// The annotation types, numbered as PDF subtypes in the order of the PDF
// reference; 0 for any other.
enum AnnotationType : int {
    AnnotOther = 0,
    AnnotText = 1,
    AnnotLink = 2,
    AnnotFreeText = 3,
    AnnotLine = 4,
    AnnotSquare = 5,
    AnnotCircle = 6,
    AnnotPolygon = 7,
    AnnotPolyLine = 8,
    AnnotHighlight = 9,
    AnnotUnderline = 10,
    AnnotSquiggly = 11,
    AnnotStrikeOut = 12,
    AnnotStamp = 13,
    AnnotCaret = 14,
    AnnotInk = 15,
    AnnotPopup = 16,
    AnnotFileAttachment = 17,
    AnnotSound = 18,
    AnnotMovie = 19,
    AnnotWidget = 20,
    AnnotScreen = 21,
    AnnotPrinterMark = 22,
    AnnotTrapNet = 23,
    AnnotWatermark = 24,
    Annot3D = 25,
    AnnotRichMedia = 26,
    AnnotXFAWidget = 27,
    AnnotRedact = 28,
};

// One annotation as the file holds it.
struct Annotation {
    int64_t id = 0;
    int type = AnnotOther;
    std::string subtype;  // the file's /Subtype name ("Highlight")
    Rect rect;
    std::string contents;
    std::string author;  // /T
    std::string subject;
    DocumentDate modified;
    DocumentDate created;
    bool hasColor = false;
    uint32_t color = 0x000000;
    bool hasInteriorColor = false;
    uint32_t interiorColor = 0x000000;
    float opacity = 1.0f;
    float borderWidth = 1.0f;
    std::string borderStyle = "S";  // S solid, D dashed, B beveled, I inset, U underline
    // Text markup: four points a quad (upper left, upper right, lower left,
    // lower right for upright text), in the file's order.
    std::vector<Position> quadPoints;
    std::vector<std::vector<Position>> inkStrokes;
    std::vector<Position> linePoints;  // a line's two ends
    std::string lineStart;             // line ending names ("OpenArrow"); empty when none is set
    std::string lineEnd;
    std::string icon;        // the icon of a note, stamp or attachment
    float fontSize = 0.0f;   // free text: from its default appearance, 0 when not given
    uint32_t textColor = 0;  // free text: the colour of its text
    bool hidden = false;
    bool printable = false;
    bool locked = false;
    int64_t inReplyTo = 0;  // the annotation this one answers, 0 for none
    int64_t popup = 0;      // its popup, 0 for none
};

// What CreateAnnotation makes.
struct NewAnnotation {
    // Highlight, Underline, Squiggly or StrikeOut from lines; Text at a
    // point (or a reply, with inReplyTo); Ink from strokes; Square, Circle
    // and FreeText in rect; Line from `from` to `to` (with an arrow head at
    // `to` when arrow).
    int type = AnnotHighlight;
    std::vector<Rect> lines;  // text markup: one rectangle per line, as a selection gives them
    Position at;              // a note: the top-left corner of its icon
    std::vector<std::vector<Position>> strokes;
    Rect rect;
    Position from;
    Position to;
    bool arrow = false;
    // Reply: the id of the annotation answered (a note placed at its corner).
    int64_t inReplyTo = 0;
    bool hasColor = false;  // false: the kind's usual colour
    uint32_t color = 0;
    bool hasInteriorColor = false;  // square and circle fill
    uint32_t interiorColor = 0;
    float opacity = 1.0f;      // 0 to 1
    float borderWidth = 0.0f;  // 0: the kind's usual width
    std::string author;
    std::string contents;
    float fontSize = 12.0f;  // free text
    uint32_t textColor = 0;  // free text
};

// What ChangeAnnotation changes: the fields that are set.
struct AnnotationChange {
    std::optional<std::string> contents;
    std::optional<std::string> author;
    std::optional<uint32_t> color;
    std::optional<float> opacity;
    // Moves and resizes: what the annotation draws (quads, strokes, line)
    // follows the rectangle.
    std::optional<Rect> rect;
};

class IAnnotationProvider {
public:
    virtual ~IAnnotationProvider() = default;

    // Every annotation of the page in the order of its list, links, widgets
    // and popups too.
    virtual std::future<std::vector<Annotation>> GetAnnotations(const int64_t& id, unsigned page) = 0;
    // Makes the annotation and answers its id.
    virtual std::future<int64_t> CreateAnnotation(const int64_t& id, unsigned page,
                                                  const NewAnnotation& annotation) = 0;
    virtual std::future<void> ChangeAnnotation(const int64_t& id, unsigned page, int64_t annotation,
                                               const AnnotationChange& change) = 0;
    // Deletes the annotation with its popup and its replies.
    virtual std::future<void> DeleteAnnotation(const int64_t& id, unsigned page, int64_t annotation) = 0;

    // Whether the document's permissions forbid adding or changing
    // annotations (false when it was opened with its owner password).
    // Answered at once, as IPDFProvider's permission queries are; like them
    // it gates nothing here. std::invalid_argument("Invalid doc handle") for
    // an id that is not open.
    virtual bool IsAnnotateProtected(const int64_t& id) = 0;
};

}  // namespace Orvane::PDF
