// A document's information: its information dictionary, version,
// encryption, and what the catalog says about layout, structure, forms,
// attachments and layers.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <cctype>
#include <cstring>
#include <stdexcept>
#include <string>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"
#include "engine/Reading.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Read inside guarded(): borrowed C strings and flags.
struct InfoRead {
    const char* text[8];  // Title, Author, Subject, Keywords, Creator, Producer, CreationDate, ModDate
    int version;
    const char* catalogVersion;
    const char* cryptMethod;
    int cryptLength;
    const char* layout;
    const char* mode;
    int tagged;
    int fields;
    int attachments;
    int layers;
};

int nameTreeHasEntries(fz_context* ctx, pdf_obj* tree) {
    return pdf_array_len(ctx, pdf_dict_get(ctx, tree, PDF_NAME(Names))) > 0 ||
           pdf_array_len(ctx, pdf_dict_get(ctx, tree, PDF_NAME(Kids))) > 0;
}

void readInfo(fz_context* ctx, pdf_document* doc, InfoRead* out) {
    pdf_obj* trailer = pdf_trailer(ctx, doc);
    pdf_obj* info = pdf_dict_get(ctx, trailer, PDF_NAME(Info));
    pdf_obj* const keys[8] = {PDF_NAME(Title),   PDF_NAME(Author),   PDF_NAME(Subject),      PDF_NAME(Keywords),
                              PDF_NAME(Creator), PDF_NAME(Producer), PDF_NAME(CreationDate), PDF_NAME(ModDate)};
    for (int i = 0; i < 8; ++i) {
        pdf_obj* value = pdf_dict_get(ctx, info, keys[i]);
        out->text[i] = pdf_is_string(ctx, value) ? pdf_to_text_string(ctx, value) : nullptr;
    }
    out->version = doc->version;
    pdf_obj* root = pdf_dict_get(ctx, trailer, PDF_NAME(Root));
    pdf_obj* version = pdf_dict_get(ctx, root, PDF_NAME(Version));
    if (pdf_is_name(ctx, version)) out->catalogVersion = pdf_to_name(ctx, version);
    if (doc->crypt) {
        out->cryptMethod = pdf_crypt_method(ctx, doc->crypt);
        out->cryptLength = pdf_crypt_length(ctx, doc->crypt);
    }
    pdf_obj* layout = pdf_dict_gets(ctx, root, "PageLayout");
    if (pdf_is_name(ctx, layout)) out->layout = pdf_to_name(ctx, layout);
    pdf_obj* mode = pdf_dict_get(ctx, root, PDF_NAME(PageMode));
    if (pdf_is_name(ctx, mode)) out->mode = pdf_to_name(ctx, mode);
    out->tagged = pdf_to_bool(ctx, pdf_dict_gets(ctx, pdf_dict_gets(ctx, root, "MarkInfo"), "Marked"));
    out->fields = pdf_array_len(ctx, pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(AcroForm)), PDF_NAME(Fields)));
    out->attachments =
        nameTreeHasEntries(ctx, pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(Names)), PDF_NAME(EmbeddedFiles)));
    out->layers = pdf_array_len(ctx, pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(OCProperties)), PDF_NAME(OCGs)));
}

// Digits of raw from pos, exactly count of them; -1 when there are not.
int digits(const std::string& raw, size_t& pos, int count) {
    int value = 0;
    for (int i = 0; i < count; ++i, ++pos) {
        if (pos >= raw.size() || !std::isdigit(static_cast<unsigned char>(raw[pos]))) return -1;
        value = value * 10 + (raw[pos] - '0');
    }
    return value;
}

// Days from 1970-01-01 to the date (proleptic Gregorian calendar).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

}  // namespace

DocumentDate ParsePdfDate(const std::string& raw) {
    DocumentDate date;
    date.raw = raw;
    size_t pos = raw.compare(0, 2, "D:") == 0 ? 2 : 0;
    date.year = digits(raw, pos, 4);
    if (date.year < 0) {
        date.year = 0;
        return date;
    }
    int fields[5] = {1, 1, 0, 0, 0};  // month, day, hour, minute, second
    const int highest[5] = {12, 31, 23, 59, 59};
    for (int i = 0; i < 5; ++i) {
        size_t at = pos;
        const int value = digits(raw, at, 2);
        if (value < 0) break;
        if (value > highest[i] || (i < 2 && value == 0)) return DocumentDate{raw};
        fields[i] = value;
        pos = at;
    }
    date.month = fields[0];
    date.day = fields[1];
    date.hour = fields[2];
    date.minute = fields[3];
    date.second = fields[4];
    if (pos < raw.size()) {
        const char sign = raw[pos++];
        if (sign == 'Z') {
            date.hasOffset = true;
        } else if (sign == '+' || sign == '-') {
            const int hours = digits(raw, pos, 2);
            if (hours >= 0 && hours <= 23) {
                if (pos < raw.size() && raw[pos] == '\'') ++pos;
                int minutes = digits(raw, pos, 2);
                if (minutes < 0 || minutes > 59) minutes = 0;
                date.hasOffset = true;
                date.offsetMinutes = (sign == '-' ? -1 : 1) * (hours * 60 + minutes);
            }
        }
    }
    date.valid = true;
    date.secondsSinceEpoch = daysFromCivil(date.year, static_cast<unsigned>(date.month), static_cast<unsigned>(date.day)) *
                                 86400 +
                             date.hour * 3600 + date.minute * 60 + date.second - int64_t(date.offsetMinutes) * 60;
    return date;
}

DocumentInformation ReadDocumentInformation(const IDocument& document) {
    const auto* pdf = dynamic_cast<const PdfDocument*>(&document);
    if (pdf == nullptr) throw std::invalid_argument("the document is not one of this engine's");
    const DocumentCore& core = *pdf->Core();
    fz_context* ctx = core.ctx;
    const InfoRead read = guarded(ctx, [&] {
        InfoRead r{};
        readInfo(ctx, core.doc, &r);
        return r;
    });
    auto text = [&](int i) { return read.text[i] ? std::string(read.text[i]) : std::string(); };
    DocumentInformation info;
    info.title = text(0);
    info.author = text(1);
    info.subject = text(2);
    info.keywords = text(3);
    info.creator = text(4);
    info.producer = text(5);
    info.created = read.text[6] ? ParsePdfDate(text(6)) : DocumentDate{};
    info.modified = read.text[7] ? ParsePdfDate(text(7)) : DocumentDate{};
    // The catalog may raise the header's version (never lower it).
    int version = read.version;
    if (read.catalogVersion && std::strlen(read.catalogVersion) == 3 && read.catalogVersion[1] == '.' &&
        std::isdigit(static_cast<unsigned char>(read.catalogVersion[0])) &&
        std::isdigit(static_cast<unsigned char>(read.catalogVersion[2]))) {
        version = std::max(version, (read.catalogVersion[0] - '0') * 10 + (read.catalogVersion[2] - '0'));
    }
    info.version = std::to_string(version / 10) + "." + std::to_string(version % 10);
    if (read.cryptMethod && std::strcmp(read.cryptMethod, "None") != 0) {
        info.encryption = std::string(read.cryptMethod) + " " + std::to_string(read.cryptLength) + "-bit";
    }
    if (read.layout) info.pageLayout = read.layout;
    if (read.mode) info.pageMode = read.mode;
    info.tagged = read.tagged;
    info.hasForm = read.fields > 0;
    info.hasAttachments = read.attachments;
    info.hasLayers = read.layers > 0;
    return info;
}

}  // namespace Orvane::PDF::Pdfium
