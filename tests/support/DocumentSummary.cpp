#include "tests/support/DocumentSummary.h"

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <string.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"

namespace QuirelleTest {
namespace {

using Orvane::PDF::Pdfium::guarded;

// ---- plain C below: it runs inside guarded() ----

// Each line is "section\ttext\n".
void line(fz_context* ctx, fz_buffer* out, const char* section, const char* text) {
    fz_append_printf(ctx, out, "%s\t", section);
    for (const char* c = text; *c; ++c) fz_append_byte(ctx, out, (*c == '\n' || *c == '\t') ? ' ' : *c);
    fz_append_byte(ctx, out, '\n');
}

// Page index by object number (-1 for none), filled by describe(): a page
// object that left the tree has none.
struct PageIndex {
    int* index;
    int* annotation;  // the page whose /Annots lists the object
    int len;
};
thread_local PageIndex pageIndex;

int pageNumber(fz_context* ctx, pdf_obj* page) {
    const int num = pdf_to_num(ctx, page);
    return num > 0 && num < pageIndex.len ? pageIndex.index[num] : -1;
}

int pageOf(fz_context* ctx, pdf_document* doc, pdf_obj* dest) {
    if (pdf_is_name(ctx, dest) || pdf_is_string(ctx, dest))
        dest = Orvane::PDF::Pdfium::LookupNamedDestination(ctx, doc, dest);
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    return pageNumber(ctx, pdf_array_get(ctx, dest, 0));
}

void indent(char* text, int depth) {
    for (int i = 0; i < depth * 2 && i < 128; ++i) text[i] = ' ';
    text[depth * 2 < 128 ? depth * 2 : 128] = '\0';
}

// Items stay marked (a loop of siblings ends): the document is read once.
void describeOutline(fz_context* ctx, pdf_document* doc, fz_buffer* out, pdf_obj* first, int depth) {
    for (pdf_obj* item = first; pdf_is_dict(ctx, item) && depth < 64; item = pdf_dict_get(ctx, item, PDF_NAME(Next))) {
        if (pdf_mark_obj(ctx, item)) break;
        pdf_obj* dest = pdf_dict_get(ctx, item, PDF_NAME(Dest));
        pdf_obj* action = pdf_dict_get(ctx, item, PDF_NAME(A));
        if (dest == NULL && pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo)))
            dest = pdf_dict_get(ctx, action, PDF_NAME(D));
        char text[1024];
        indent(text, depth);
        const size_t used = strlen(text);
        const char* title = pdf_dict_get_text_string(ctx, item, PDF_NAME(Title));
        if (dest != NULL)
            fz_snprintf(text + used, sizeof text - used, "%s -> page %d", title, pageOf(ctx, doc, dest));
        else
            fz_snprintf(text + used, sizeof text - used, "%s -> %s", title,
                        action != NULL ? pdf_dict_get_name(ctx, action, PDF_NAME(S)) : "nothing");
        line(ctx, out, "outline", text);
        describeOutline(ctx, doc, out, pdf_dict_get(ctx, item, PDF_NAME(First)), depth + 1);
    }
}

void appendRoman(fz_context* ctx, fz_buffer* out, int n, int lower) {
    static const int values[] = {1000, 900, 500, 400, 100, 90, 50, 40, 10, 9, 5, 4, 1};
    static const char* const upper[] = {"M", "CM", "D", "CD", "C", "XC", "L", "XL", "X", "IX", "V", "IV", "I"};
    static const char* const low[] = {"m", "cm", "d", "cd", "c", "xc", "l", "xl", "x", "ix", "v", "iv", "i"};
    for (int i = 0; i < 13 && n > 0 && n < 100000; ++i) {
        while (n >= values[i]) {
            fz_append_string(ctx, out, lower ? low[i] : upper[i]);
            n -= values[i];
        }
    }
}

// All pages' labels on one line, space-separated.
void describeLabels(fz_context* ctx, pdf_document* doc, fz_buffer* out, pdf_obj* tree) {
    pdf_obj* nums = pdf_dict_get(ctx, tree, PDF_NAME(Nums));
    if (!pdf_is_array(ctx, nums)) {
        if (tree != NULL) line(ctx, out, "labels", "(a label tree of more than one node)");
        return;
    }
    const int pages = pdf_count_pages(ctx, doc);
    fz_buffer* text = fz_new_buffer(ctx, 256);
    fz_try(ctx) {
        const int n = pdf_array_len(ctx, nums);
        for (int page = 0; page < pages; ++page) {
            int key = -1;
            pdf_obj* range = NULL;
            for (int i = 0; i + 1 < n; i += 2) {
                const int k = pdf_to_int(ctx, pdf_array_get(ctx, nums, i));
                if (k <= page && k > key) {
                    key = k;
                    range = pdf_array_get(ctx, nums, i + 1);
                }
            }
            if (page > 0) fz_append_byte(ctx, text, ' ');
            if (range == NULL) {
                fz_append_printf(ctx, text, "%d", page + 1);
                continue;
            }
            fz_append_string(ctx, text, pdf_dict_get_text_string(ctx, range, PDF_NAME(P)));
            pdf_obj* st = pdf_dict_gets(ctx, range, "St");
            const int number = (pdf_is_int(ctx, st) ? pdf_to_int(ctx, st) : 1) + page - key;
            const char* style = pdf_dict_get_name(ctx, range, PDF_NAME(S));
            if (!strcmp(style, "D"))
                fz_append_printf(ctx, text, "%d", number);
            else if (!strcmp(style, "R") || !strcmp(style, "r"))
                appendRoman(ctx, text, number, style[0] == 'r');
            else if (!strcmp(style, "A") || !strcmp(style, "a"))
                for (int i = 0; i <= (number - 1) / 26 && i < 100; ++i)
                    fz_append_byte(ctx, text, (style[0] == 'a' ? 'a' : 'A') + (number - 1) % 26);
        }
        fz_terminate_buffer(ctx, text);
        line(ctx, out, "labels", fz_string_from_buffer(ctx, text));
    }
    fz_always(ctx) {
        fz_drop_buffer(ctx, text);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

int isTerminalField(fz_context* ctx, pdf_obj* field) {
    pdf_obj* kids = pdf_dict_get(ctx, field, PDF_NAME(Kids));
    const int n = pdf_array_len(ctx, kids);
    for (int i = 0; i < n; ++i) {
        if (pdf_dict_get(ctx, pdf_array_get(ctx, kids, i), PDF_NAME(T)) != NULL) return 0;
    }
    return 1;
}

void widgetPages(fz_context* ctx, pdf_document* doc, pdf_obj* field, char* text, size_t size) {
    pdf_obj* kids = pdf_dict_get(ctx, field, PDF_NAME(Kids));
    const int n = pdf_array_len(ctx, kids);
    for (int i = 0; i < (n > 0 ? n : 1); ++i) {
        const int num = pdf_to_num(ctx, n > 0 ? pdf_array_get(ctx, kids, i) : field);
        const int number = num > 0 && num < pageIndex.len ? pageIndex.annotation[num] : -1;
        const size_t used = strlen(text);
        fz_snprintf(text + used, size - used, " %d", number);
    }
}

void describeFields(fz_context* ctx, pdf_document* doc, fz_buffer* out, pdf_obj* fields, int depth) {
    const int n = pdf_array_len(ctx, fields);
    for (int i = 0; i < n && depth < 32; ++i) {
        pdf_obj* field = pdf_array_get(ctx, fields, i);
        if (pdf_mark_obj(ctx, field)) continue;
        char* name = NULL;
        fz_var(name);
        fz_try(ctx) {
            if (isTerminalField(ctx, field)) {
                name = pdf_field_name(ctx, field);
                char text[2048];
                fz_snprintf(text, sizeof text, "%s [%s] = %s on pages", name, pdf_field_type_string(ctx, field),
                            pdf_field_value(ctx, field));
                widgetPages(ctx, doc, field, text, sizeof text);
                line(ctx, out, "field", text);
            } else {
                describeFields(ctx, doc, out, pdf_dict_get(ctx, field, PDF_NAME(Kids)), depth + 1);
            }
        }
        fz_always(ctx) {
            fz_free(ctx, name);
            pdf_unmark_obj(ctx, field);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
    }
}

int countStructure(fz_context* ctx, pdf_obj* node, int depth) {
    if (depth > 256 || pdf_mark_obj(ctx, node)) return 0;
    int count = 0;
    fz_try(ctx) {
        if (pdf_is_dict(ctx, node)) {
            count += !strcmp(pdf_dict_get_name(ctx, node, PDF_NAME(Type)), "StructElem") ||
                     pdf_dict_get(ctx, node, PDF_NAME(S)) != NULL;
            count += countStructure(ctx, pdf_dict_get(ctx, node, PDF_NAME(K)), depth + 1);
        } else if (pdf_is_array(ctx, node)) {
            const int n = pdf_array_len(ctx, node);
            for (int i = 0; i < n; ++i) count += countStructure(ctx, pdf_array_get(ctx, node, i), depth + 1);
        }
    }
    fz_always(ctx) {
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return count;
}

void describe(fz_context* ctx, pdf_document* doc, fz_buffer* out) {
    char text[1024];
    pdf_obj* catalog = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    fz_snprintf(text, sizeof text, "%d", pdf_count_pages(ctx, doc));
    line(ctx, out, "pages", text);
    for (int i = 0; i < pdf_dict_len(ctx, catalog); ++i) line(ctx, out, "catalog", pdf_to_name(ctx, pdf_dict_get_key(ctx, catalog, i)));

    describeOutline(ctx, doc, out, pdf_dict_get(ctx, pdf_dict_get(ctx, catalog, PDF_NAME(Outlines)), PDF_NAME(First)), 0);
    describeLabels(ctx, doc, out, pdf_dict_gets(ctx, catalog, "PageLabels"));
    describeFields(ctx, doc, out, pdf_dict_get(ctx, pdf_dict_get(ctx, catalog, PDF_NAME(AcroForm)), PDF_NAME(Fields)), 0);

    pdf_obj* files = pdf_load_name_tree(ctx, doc, PDF_NAME(EmbeddedFiles));
    fz_try(ctx) {
        for (int i = 0; i < pdf_dict_len(ctx, files); ++i) {
            pdf_obj* fileSpec = pdf_dict_get_val(ctx, files, i);
            pdf_obj* data = pdf_dict_get(ctx, pdf_dict_get(ctx, fileSpec, PDF_NAME(EF)), PDF_NAME(F));
            fz_buffer* bytes = pdf_is_stream(ctx, data) ? pdf_load_stream(ctx, data) : NULL;
            fz_snprintf(text, sizeof text, "%s (%d bytes)", pdf_to_name(ctx, pdf_dict_get_key(ctx, files, i)),
                        bytes != NULL ? (int)bytes->len : -1);
            fz_drop_buffer(ctx, bytes);
            line(ctx, out, "attachment", text);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, files);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }

    pdf_obj* info = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Info));
    for (int i = 0; i < pdf_dict_len(ctx, info); ++i) {
        pdf_obj* value = pdf_dict_get_val(ctx, info, i);
        if (!pdf_is_string(ctx, value)) continue;
        fz_snprintf(text, sizeof text, "%s = %s", pdf_to_name(ctx, pdf_dict_get_key(ctx, info, i)),
                    pdf_to_text_string(ctx, value));
        line(ctx, out, "info", text);
    }
    pdf_obj* metadata = pdf_dict_get(ctx, catalog, PDF_NAME(Metadata));
    if (pdf_is_stream(ctx, metadata)) {
        fz_buffer* bytes = pdf_load_stream(ctx, metadata);
        fz_snprintf(text, sizeof text, "%d bytes", (int)bytes->len);
        fz_drop_buffer(ctx, bytes);
        line(ctx, out, "xmp", text);
    }

    pdf_obj* groups = pdf_dict_get(ctx, pdf_dict_get(ctx, catalog, PDF_NAME(OCProperties)), PDF_NAME(OCGs));
    for (int i = 0; i < pdf_array_len(ctx, groups); ++i)
        line(ctx, out, "layer", pdf_dict_get_text_string(ctx, pdf_array_get(ctx, groups, i), PDF_NAME(Name)));

    pdf_obj* structure = pdf_dict_gets(ctx, catalog, "StructTreeRoot");
    if (structure != NULL) {
        fz_snprintf(text, sizeof text, "%d elements", countStructure(ctx, pdf_dict_get(ctx, structure, PDF_NAME(K)), 0));
        line(ctx, out, "structure", text);
    }

    if (doc->crypt != NULL) {
        fz_snprintf(text, sizeof text, "%s revision %d length %d permissions %d", pdf_crypt_method(ctx, doc->crypt),
                    pdf_crypt_revision(ctx, doc->crypt), pdf_crypt_length(ctx, doc->crypt),
                    pdf_crypt_permissions(ctx, doc->crypt));
        line(ctx, out, "encryption", text);
    } else {
        line(ctx, out, "encryption", "none");
    }
}

}  // namespace

const std::vector<std::string>& DocumentSummary::Lines(const std::string& section) const {
    static const std::vector<std::string> none;
    const auto found = sections.find(section);
    return found == sections.end() ? none : found->second;
}

DocumentSummary Summarize(const std::filesystem::path& path, const std::string& password) {
    using namespace Orvane::PDF::Pdfium;
    std::unique_ptr<fz_context, decltype(&fz_drop_context)> holder(fz_new_context(nullptr, nullptr, FZ_STORE_DEFAULT),
                                                                   fz_drop_context);
    fz_context* ctx = holder.get();
    if (ctx == nullptr) throw std::runtime_error("cannot create a MuPDF context");
    std::string text;
    try {
        const std::string file = path.string();
        PdfDocumentHandle doc(ctx, guarded(ctx, [&] { return pdf_open_document(ctx, file.c_str()); }));
        const int access = guarded(ctx, [&] { return pdf_authenticate_password(ctx, doc.get(), password.c_str()); });
        if (access == 0) throw std::runtime_error("wrong password for " + file);
        BufferHandle out(ctx, guarded(ctx, [&] { return fz_new_buffer(ctx, 4096); }));
        std::vector<int> index(size_t(guarded(ctx, [&] { return pdf_xref_len(ctx, doc.get()); })), -1);
        std::vector<int> annotation = index;
        const int pages = guarded(ctx, [&] { return pdf_count_pages(ctx, doc.get()); });
        for (int i = 0; i < pages; ++i) {
            guarded(ctx, [&] {
                pdf_obj* page = pdf_lookup_page_obj(ctx, doc.get(), i);
                const int num = pdf_to_num(ctx, page);
                if (num > 0 && size_t(num) < index.size()) index[size_t(num)] = i;
                pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
                for (int k = 0; k < pdf_array_len(ctx, annots); ++k) {
                    const int a = pdf_to_num(ctx, pdf_array_get(ctx, annots, k));
                    if (a > 0 && size_t(a) < annotation.size()) annotation[size_t(a)] = i;
                }
            });
        }
        pageIndex = PageIndex{index.data(), annotation.data(), int(index.size())};
        guarded(ctx, [&] {
            describe(ctx, doc.get(), out.get());
            fz_terminate_buffer(ctx, out.get());
        });
        text = guarded(ctx, [&] { return fz_string_from_buffer(ctx, out.get()); });
    } catch (const std::runtime_error&) {
        throw;
    } catch (const std::exception& e) {
        throw std::runtime_error("cannot summarize " + path.string() + ": " + e.what());
    }
    DocumentSummary summary;
    std::istringstream lines(text);
    std::string row;
    while (std::getline(lines, row)) {
        const size_t tab = row.find('\t');
        if (tab == std::string::npos) continue;
        summary.sections[row.substr(0, tab)].push_back(row.substr(tab + 1));
    }
    return summary;
}

std::vector<std::string> Differences(const DocumentSummary& a, const DocumentSummary& b) {
    std::vector<std::string> result;
    std::map<std::string, int> names;
    for (const auto& section : a.sections) names[section.first];
    for (const auto& section : b.sections) names[section.first];
    for (const auto& name : names) {
        std::vector<std::string> left = a.Lines(name.first), right = b.Lines(name.first);
        std::sort(left.begin(), left.end());
        std::sort(right.begin(), right.end());
        std::vector<std::string> onlyLeft, onlyRight;
        std::set_difference(left.begin(), left.end(), right.begin(), right.end(), std::back_inserter(onlyLeft));
        std::set_difference(right.begin(), right.end(), left.begin(), left.end(), std::back_inserter(onlyRight));
        for (const std::string& text : onlyLeft) result.push_back("-" + name.first + ": " + text);
        for (const std::string& text : onlyRight) result.push_back("+" + name.first + ": " + text);
    }
    return result;
}

}  // namespace QuirelleTest
