#pragma once

// What a reader shows beyond the pages themselves: the outline, the pages'
// printed labels, the document's information, text selected with the mouse,
// and pieces of a page drawn at any zoom (tiles).
//
// Every operation is queued to the service's worker and answered through a
// std::future (tiles also asynchronously, to an ITileObserver). Through the
// future: an id that is not open gives std::invalid_argument("Invalid doc
// handle"), a page out of range std::out_of_range, a malformed argument
// std::invalid_argument naming it, an engine failure Orvane::Exception, a
// request past its time budget what the engine limits say.
//
// Text is UTF-8; points and rectangles are in page space (PDF points, origin
// at the bottom-left, y upward); pages are counted from 0.

#include <QImage>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "orvane/IoPath.h"
#include "orvane/pdf/IPageInfoObserver.h"
#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

// One entry of a document's outline (its table of contents).
struct OutlineEntry {
    std::string title;
    // The target page, or -1 when the entry leads to no page of this document
    // (a URI, another file, a destination that names no page).
    int32_t pageIndex = -1;
    // The target point: its left and top in the target page's space (0 where
    // the destination leaves them unset), and the zoom as a factor (2 = 200 %,
    // 0 where the destination keeps the current zoom), as links give them.
    double x = 0.0;
    double y = 0.0;
    float zoom = 0.0f;
    std::string uri;    // the target of an entry that opens a URI, or the file of one that opens another PDF
    bool open = false;  // its children show when the outline is first shown
    // The colour the file gives the title, 0xRRGGBB, when hasColor.
    bool hasColor = false;
    uint32_t color = 0x000000;
    bool bold = false;
    bool italic = false;
    std::vector<OutlineEntry> children;
};

// A date of the document's information dictionary.
struct DocumentDate {
    std::string raw;     // as the file writes it ("D:20240131120000+01'00'"); empty when absent
    bool valid = false;  // the fields below were read from raw
    int year = 0;
    int month = 0;  // 1-12
    int day = 0;    // 1-31
    int hour = 0;
    int minute = 0;
    int second = 0;
    bool hasOffset = false;      // the time zone was given (Z counts)
    int offsetMinutes = 0;       // east of UTC
    int64_t secondsSinceEpoch = 0;  // UTC, taking the offset as 0 when not given
};

struct DocumentInformation {
    std::string title;
    std::string author;
    std::string subject;
    std::string keywords;
    std::string creator;
    std::string producer;
    DocumentDate created;
    DocumentDate modified;
    std::string version;     // "1.7"
    std::string encryption;  // "AES 256-bit", "RC4 40-bit"...; empty when not encrypted
    // /PageLayout and /PageMode as the file names them ("TwoColumnLeft",
    // "UseOutlines"...); empty when the file does not ask.
    std::string pageLayout;
    std::string pageMode;
    bool tagged = false;          // marked as a tagged (structured) document
    bool hasForm = false;         // form fields
    bool hasAttachments = false;  // embedded files
    bool hasLayers = false;       // optional content groups
};

// Text chosen on one page.
struct TextSelection {
    // The characters as the page's text object counts them
    // (ITextObject::GetText()); charCount 0 when nothing was chosen.
    int32_t charIndex = 0;
    int32_t charCount = 0;
    // The chosen text for copying: ligatures spelt out, a word hyphenated at
    // a line end joined, lines separated by '\n'.
    std::string text;
    // One rectangle per text line, for painting.
    std::vector<Rect> rects;
};

// Receives tiles asked for with GenerateTileAsync. Called on the service's
// worker, one observer after another, never under the service's lock:
// hand lengthy work to your own threads and never wait on a future of the
// same service inside a callback.
class ITileObserver {
public:
    // tile is null when the region could not be drawn.
    virtual void OnTile(int64_t doc, unsigned page, const Rect& region, double scale,
                        IPageInfoObserver::ViewType viewType, const QImage& tile) = 0;
    virtual ~ITileObserver() = default;
};

class IReadingProvider {
public:
    virtual ~IReadingProvider() = default;

    // The outline, its entries in the file's order. A damaged outline is cut
    // where it loops or nests absurdly deep; an empty vector when there is none.
    virtual std::future<std::vector<OutlineEntry>> GetOutline(const int64_t& id) = 0;

    // Every page's label, in page order: from the document's page labels
    // where it has them ("iv", "A-3"), else the page number from 1.
    virtual std::future<std::vector<std::string>> GetPageLabels(const int64_t& id) = 0;
    // The first page whose label is label; failing that, label read as a page
    // number from 1; -1 when neither fits. Case matters for labels, spaces
    // around label do not.
    virtual std::future<int> FindPageByLabel(const int64_t& id, const std::string& label) = 0;

    virtual std::future<DocumentInformation> GetDocumentInformation(const int64_t& id) = 0;

    // The characters between two page points in reading order, as a drag
    // from `from` to `to` selects them (either may come first). A point off
    // the text takes the nearest character.
    virtual std::future<TextSelection> SelectText(const int64_t& id, unsigned page, const Position& from,
                                                  const Position& to) = 0;
    // The word under or nearest the point (a double click).
    virtual std::future<TextSelection> SelectWord(const int64_t& id, unsigned page, const Position& at) = 0;
    // The text line under or nearest the point (a triple click).
    virtual std::future<TextSelection> SelectLine(const int64_t& id, unsigned page, const Position& at) = 0;
    // The page's whole text.
    virtual std::future<TextSelection> SelectAll(const int64_t& id, unsigned page) = 0;

    // A region of a page (page space) drawn at scale pixels per point, as
    // the page shows (its rotation applied). The tile covers the pixels of
    // the page's whole picture of round(width * scale) x round(height *
    // scale) pixels (the page's size as displayed) that the region touches,
    // and holds exactly those pixels of that picture; areas the page does not
    // paint are white. Memory goes with the tile's size, not the page's.
    // A region that is empty, not finite or outside the page, a scale not
    // above zero or a tile above 64 megapixels is a malformed argument.
    virtual std::future<QImage> GenerateTile(const int64_t& id, unsigned page, const Rect& region, double scale,
                                             IPageInfoObserver::ViewType viewType) = 0;
    // As GenerateTile, answered to the tile observers. A request for a tile
    // already pending (same document, page, region, scale and view) replaces
    // it; pending tiles are served oldest first, right after page images.
    virtual void GenerateTileAsync(const int64_t& id, unsigned page, const Rect& region, double scale,
                                   IPageInfoObserver::ViewType viewType) = 0;
    // Withdraws that tile if it is still pending.
    virtual void CancelTile(const int64_t& id, unsigned page, const Rect& region, double scale,
                            IPageInfoObserver::ViewType viewType) = 0;
    // Withdraws every pending tile of the page.
    virtual void CancelTiles(const int64_t& id, unsigned page) = 0;
    // Observers are borrowed: unregister one before destroying it. A null
    // pointer, or one registered twice, is ignored.
    virtual void RegisterTileObserver(ITileObserver* observer) = 0;
    virtual void UnregisterTileObserver(ITileObserver* observer) = 0;
};

}  // namespace Orvane::PDF
