#pragma once

// Builds PDF files in code, so that every test knows exactly what a file holds.
// Geometry is in PDF user space (points, origin bottom-left, y upward); Rect is
// Orvane::PDF::Rect {left, top, right, bottom} with top >= bottom.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "orvane/pdf/Records.h"

namespace QuirelleTest {

using Orvane::PDF::Rect;

// Text drawn with the standard Helvetica font (not embedded), WinAnsi
// encoding. text is UTF-8 limited to Latin-1 and the ligature U+FB01; U+00AD
// reads back as a soft hyphen. "\n" is not allowed (use one run per line).
struct TextRun {
    double x = 72;  // baseline start
    double y = 720;
    double fontSize = 12;
    std::string text;
};

// A filled rectangle path, colour 0xRRGGBB.
struct FilledRect {
    Rect rect;
    uint32_t rgb = 0x000000;
};

// An image of one colour drawn into rect. With alpha, an /SMask of the given
// constant opacity (0-255) is attached.
struct ImageLayout {
    Rect rect;
    int pixelWidth = 8;
    int pixelHeight = 8;
    uint32_t rgb = 0xFF0000;
    std::optional<int> alpha;
};

// A link annotation: to a URI, to a page of this file (explicit /XYZ with the
// given values; std::nullopt writes null), or to a named destination.
struct LinkLayout {
    Rect rect;
    std::string uri;               // URI link when not empty
    int targetPage = -1;           // explicit destination when >= 0
    std::optional<double> left;    // /XYZ left
    std::optional<double> top;     // /XYZ top
    std::optional<double> zoom;    // /XYZ zoom; 0 or null keeps the zoom
    std::string fitMode;           // instead of XYZ: "Fit", "FitH", "FitR"... (values from left/top)
    std::string namedDestination;  // named destination when not empty
    std::optional<double> right;   // /FitR right
    std::optional<double> bottom;  // /FitR bottom
};

// Any other annotation, by PDF subtype name ("Text", "Square", "Widget"...).
// flags is the /F entry (4 = Print, 2 = Hidden, 32 = NoView).
struct AnnotationLayout {
    std::string subtype;
    Rect rect;
    int flags = 4;
    std::optional<uint32_t> fillRgb;  // with an appearance stream filling rect in this colour
    std::string entries;              // raw dictionary entries added as written ("/Contents (Hi) /C [1 0 0]")
};

struct PageLayout {
    double width = 612;
    double height = 792;
    int rotate = 0;               // /Rotate, any multiple of 90
    std::optional<Rect> cropBox;  // /CropBox
    std::vector<TextRun> text;
    std::vector<FilledRect> rects;
    std::vector<ImageLayout> images;
    std::vector<LinkLayout> links;
    std::vector<AnnotationLayout> annotations;
    std::string extraContent;  // raw content-stream operators appended at the end
};

struct Encryption {
    enum class Method { Rc4_40, Rc4_128, Aes128, Aes256 };
    std::string userPassword;
    std::string ownerPassword;
    int32_t permissions = -4;  // /P: all bits set (everything allowed)
    Method method = Method::Aes128;
};

// One outline entry; entries follow each other depth-first, level 0 at the
// top. It leads to page (explicit /XYZ at the page's top) or to a named
// destination; with neither it has no destination.
struct OutlineEntry {
    std::string title;
    int level = 0;
    int page = -1;
    std::string namedDestination;
    bool open = true;
};

// A page label range from firstPage on: style D, R, r, A, a or empty.
struct PageLabelRange {
    int firstPage = 0;
    std::string style = "D";
    std::string prefix;
    int start = 1;
};

// A form field with its widgets (page, rect). A radio button has one widget
// per option, each option its export name; value is the chosen option (empty
// for none). A check box's value is "Yes" or "Off". A field with one widget is
// merged with it; with several, the widgets are its kids. With parent, the
// field is the kid of a field of that (partial) name, made for it.
struct FieldLayout {
    // Choice is a combo box, List a list box. A signature field whose value
    // is "signed" carries a dummy signature: its /ByteRange covers the whole
    // file but the /Contents string, as a real signature's does.
    enum class Kind { Text, CheckBox, Radio, Choice, List, PushButton, Signature };
    Kind kind = Kind::Text;
    std::string name;
    std::string value;
    std::vector<std::string> options;
    std::vector<std::pair<int, Rect>> widgets;
    bool calculated = false;  // listed in the form's calculation order
    std::string parent;
    int flags = 0;            // further /Ff bits (1 read-only, 2 required, 4096 multi-line...)
    int maxLength = 0;        // /MaxLen when above 0
    std::string tooltip;      // /TU
    std::string defaultValue; // /DV when not empty
    // JavaScript run on keystrokes (/AA /K), validation (/AA /V) and calculation (/AA /C).
    std::string keystrokeScript;
    std::string validateScript;
    std::string calculateScript;
};

class PdfBuilder {
public:
    PdfBuilder& AddPage(PageLayout page);
    // Adds count pages of the given size, each with "Page N" (N from 1) at (72, 720).
    PdfBuilder& AddNumberedPages(int count, double width = 612, double height = 792);
    // A named destination for /XYZ left top on page, in the catalog's /Names
    // tree (or the old-style /Dests dictionary when inNamesTree is false).
    PdfBuilder& AddNamedDestination(const std::string& name, int page, double left, double top,
                                    bool inNamesTree = true);
    // Puts /MediaBox, /Rotate and /Resources of every page on the page tree's
    // root instead of on the pages (attributes the pages inherit). The root
    // takes the first page's size and rotation; a page that differs from it
    // keeps its own /MediaBox or /Rotate.
    PdfBuilder& InheritAttributes(bool inherit = true);
    PdfBuilder& Encrypt(Encryption encryption);
    PdfBuilder& AddOutline(std::vector<OutlineEntry> entries);
    PdfBuilder& AddPageLabels(std::vector<PageLabelRange> ranges);
    PdfBuilder& AddField(FieldLayout field);
    // An embedded file in the /EmbeddedFiles name tree.
    PdfBuilder& AddAttachment(const std::string& name, const std::string& data);
    // /Info /Title, and an XMP /Metadata stream of the catalog holding it.
    PdfBuilder& SetTitle(const std::string& title, bool withXmp = true);
    // An optional content group (layer) in /OCProperties, drawn on no page.
    PdfBuilder& AddLayer(const std::string& name);
    // A structure tree: one /P element per page, marking its content, and
    // /MarkInfo and /Lang in the catalog.
    PdfBuilder& AddStructureTree();
    // Raw entries appended to the catalog dictionary ("/PageMode /UseOutlines").
    PdfBuilder& AddCatalogEntries(const std::string& entries);

    // The file's bytes. Throws std::runtime_error on failure.
    std::string Build() const;
    void Save(const std::filesystem::path& path) const;

    const std::vector<PageLayout>& Pages() const { return pages_; }

private:
    struct NamedDestination {
        std::string name;
        int page;
        double left, top;
        bool inNamesTree;
    };
    std::vector<PageLayout> pages_;
    std::vector<NamedDestination> named_;
    std::vector<OutlineEntry> outline_;
    std::vector<PageLabelRange> labels_;
    std::vector<FieldLayout> fields_;
    std::vector<std::pair<std::string, std::string>> attachments_;
    std::string title_;
    bool xmp_ = false;
    std::vector<std::string> layers_;
    bool structure_ = false;
    std::string catalogEntries_;
    bool inherit_ = false;
    std::optional<Encryption> encryption_;
};

// A file of the given objects' bodies, numbered from 1 (object 1 is the
// catalog), with a correct cross-reference table: for structures the builder
// would never make. RawStream gives a stream object's body (dict entries
// without the brackets, /Length added).
std::string RawPdf(const std::vector<std::string>& objects);
std::string RawStream(const std::string& entries, const std::string& data);

// An uncompressed RGB TIFF with one directory per frame, each frame of one
// colour (0xRRGGBB).
std::string MultiFrameTiff(int width, int height, const std::vector<uint32_t>& colours);

// The zlib stream of data, as /FlateDecode reads it.
std::string Deflate(const std::string& data);

// qpdf's structural check, opening the file with the password, finds neither
// errors nor warnings.
bool QpdfClean(const std::filesystem::path& path, const std::string& password = "");

// Writes bytes to a file.
void WriteFile(const std::filesystem::path& path, const std::string& bytes);
std::string ReadFile(const std::filesystem::path& path);

// A directory removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& Path() const { return path_; }
    std::filesystem::path File(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// The directory of the bundled samples (the repository's samples/).
std::filesystem::path SamplesDir();

}  // namespace QuirelleTest
