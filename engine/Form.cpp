// The form's fields, walked from the catalog's /AcroForm /Fields by hand: a
// damaged file may loop its /Kids or nest them without end, and the listing
// wants every terminal field with its widgets in the tree's order.

#include <glog/logging.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <unordered_set>

#include "engine/DocumentCore.h"
#include "engine/Form.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF::Pdfium {
namespace {

struct NodeRead {
    pdf_obj* dict;
    pdf_obj* kids;
    int kidCount;
    int kidsNamed;  // some kid has a partial name: the node is not a terminal field
    int number;
    const char* partial;
};

// Runs inside guarded(): C only.
void readNode(fz_context* ctx, pdf_obj* ref, NodeRead* out) {
    pdf_obj* dict = pdf_resolve_indirect(ctx, ref);
    if (!pdf_is_dict(ctx, dict)) return;
    out->dict = dict;
    out->number = pdf_to_num(ctx, ref);
    pdf_obj* t = pdf_dict_get(ctx, dict, PDF_NAME(T));
    out->partial = pdf_is_string(ctx, t) ? pdf_to_text_string(ctx, t) : NULL;
    out->kids = pdf_dict_get(ctx, dict, PDF_NAME(Kids));
    out->kidCount = pdf_is_array(ctx, out->kids) ? pdf_array_len(ctx, out->kids) : 0;
    for (int i = 0; i < out->kidCount; ++i) {
        pdf_obj* kid = pdf_array_get(ctx, out->kids, i);
        if (pdf_dict_get(ctx, kid, PDF_NAME(T)) || pdf_dict_get(ctx, kid, PDF_NAME(Kids))) {
            out->kidsNamed = 1;
            break;
        }
    }
}

std::string text(fz_context* ctx, pdf_obj* obj) {
    const char* value = guarded(ctx, [&]() -> const char* {
        if (pdf_is_name(ctx, obj)) return pdf_to_name(ctx, obj);
        if (pdf_is_string(ctx, obj)) return pdf_to_text_string(ctx, obj);
        if (pdf_is_number(ctx, obj)) return NULL;
        return NULL;
    });
    return value ? value : "";
}

// A value: a name or string, or an array of them (a list box's selection).
std::vector<std::string> values(fz_context* ctx, pdf_obj* value) {
    std::vector<std::string> out;
    const int n = guarded(ctx, [&] { return pdf_is_array(ctx, value) ? pdf_array_len(ctx, value) : -1; });
    if (n < 0) {
        if (value) out.push_back(text(ctx, value));
        return out;
    }
    for (int i = 0; i < n; ++i) out.push_back(text(ctx, guarded(ctx, [&] { return pdf_array_get(ctx, value, i); })));
    return out;
}

FormFieldType typeOf(fz_context* ctx, pdf_obj* ft, int flags) {
    const bool button = guarded(ctx, [&] { return pdf_name_eq(ctx, ft, PDF_NAME(Btn)); });
    if (button) {
        if (flags & PDF_BTN_FIELD_IS_PUSHBUTTON) return FormFieldType::PushButton;
        return (flags & PDF_BTN_FIELD_IS_RADIO) ? FormFieldType::RadioButton : FormFieldType::CheckBox;
    }
    if (guarded(ctx, [&] { return pdf_name_eq(ctx, ft, PDF_NAME(Ch)); }))
        return (flags & PDF_CH_FIELD_IS_COMBO) ? FormFieldType::ComboBox : FormFieldType::ListBox;
    if (guarded(ctx, [&] { return pdf_name_eq(ctx, ft, PDF_NAME(Sig)); })) return FormFieldType::Signature;
    if (guarded(ctx, [&] { return pdf_name_eq(ctx, ft, PDF_NAME(Tx)); })) return FormFieldType::Text;
    return FormFieldType::PushButton;
}

// Runs inside guarded(): C only. The state a button shows when on, NULL when none is drawn.
const char* onState(fz_context* ctx, pdf_obj* widget) {
    pdf_obj* ap = pdf_dict_get(ctx, widget, PDF_NAME(AP));
    pdf_obj* keys[2] = {pdf_dict_get(ctx, ap, PDF_NAME(N)), pdf_dict_get(ctx, ap, PDF_NAME(D))};
    for (pdf_obj* dict : keys) {
        const int n = pdf_dict_len(ctx, dict);
        for (int i = 0; i < n; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx, dict, i);
            if (pdf_is_name(ctx, key) && !pdf_name_eq(ctx, key, PDF_NAME(Off))) return pdf_to_name(ctx, key);
        }
    }
    return NULL;
}

}  // namespace

std::vector<FieldNode> WalkFields(fz_context* ctx, pdf_document* doc) {
    std::vector<FieldNode> fields;
    pdf_obj* top = guarded(ctx, [&] {
        return pdf_dict_getl(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root), PDF_NAME(AcroForm), PDF_NAME(Fields), NULL);
    });
    struct Pending {
        pdf_obj* ref;
        std::string prefix;
        int depth;
    };
    std::vector<Pending> stack;
    const int count = guarded(ctx, [&] { return pdf_is_array(ctx, top) ? pdf_array_len(ctx, top) : 0; });
    for (int i = count - 1; i >= 0; --i) stack.push_back({guarded(ctx, [&] { return pdf_array_get(ctx, top, i); }), "", 0});
    std::unordered_set<int> seen;
    size_t visited = 0;
    while (!stack.empty()) {
        Pending item = std::move(stack.back());
        stack.pop_back();
        if (++visited > kMaxFieldNodes) {
            LOG(WARNING) << "form: more than " << kMaxFieldNodes << " field nodes, the rest left out";
            break;
        }
        NodeRead node{};
        guarded(ctx, [&] { readNode(ctx, item.ref, &node); });
        if (!node.dict) continue;
        if (node.number > 0 && !seen.insert(node.number).second) {
            LOG(WARNING) << "form: field object " << node.number << " met again, left out";
            continue;
        }
        std::string name = item.prefix;
        if (node.partial) name = name.empty() ? std::string(node.partial) : name + "." + node.partial;
        if (node.kidsNamed) {
            if (item.depth + 1 >= kMaxFieldDepth) {
                LOG(WARNING) << "form: fields nested deeper than " << kMaxFieldDepth << " left out";
                continue;
            }
            for (int i = node.kidCount - 1; i >= 0; --i)
                stack.push_back({guarded(ctx, [&] { return pdf_array_get(ctx, node.kids, i); }), name, item.depth + 1});
            continue;
        }
        FieldNode field{name, node.dict, {}};
        for (int i = 0; i < node.kidCount; ++i) {
            pdf_obj* kid = guarded(ctx, [&] { return pdf_resolve_indirect(ctx, pdf_array_get(ctx, node.kids, i)); });
            if (kid) field.widgets.push_back(kid);
        }
        if (node.kidCount == 0) field.widgets.push_back(node.dict);
        fields.push_back(std::move(field));
    }
    return fields;
}

std::vector<std::pair<int, int>> AnnotationPages(fz_context* ctx, pdf_document* doc) {
    const PageTree tree = ReadPageTree(ctx, doc);
    std::vector<std::pair<int, int>> pages;
    for (size_t p = 0; p < tree.leaves.size(); ++p) {
        pdf_obj* annots = guarded(ctx, [&] { return pdf_dict_get(ctx, tree.leaves[p].page, PDF_NAME(Annots)); });
        const int n = guarded(ctx, [&] { return pdf_array_len(ctx, annots); });
        for (int i = 0; i < n; ++i) {
            const int num = guarded(ctx, [&] { return pdf_to_num(ctx, pdf_array_get(ctx, annots, i)); });
            if (num > 0) pages.emplace_back(num, int(p));
        }
    }
    std::sort(pages.begin(), pages.end());
    return pages;
}

FormField ReadField(fz_context* ctx, pdf_document* doc, const FieldNode& node, const std::vector<int>& calculation,
                    const std::vector<std::pair<int, int>>& pageOf) {
    pdf_obj* f = node.field;
    FormField field;
    field.name = node.name;
    struct Entries {
        pdf_obj *ft, *v, *dv, *opt, *tu;
        int flags, maxLen, number, quadding;
        float fontSize;
        const char* appearance;
    } e{};
    guarded(ctx, [&] {
        e.ft = pdf_dict_get_inheritable(ctx, f, PDF_NAME(FT));
        e.v = pdf_dict_get_inheritable(ctx, f, PDF_NAME(V));
        e.dv = pdf_dict_get_inheritable(ctx, f, PDF_NAME(DV));
        e.opt = pdf_dict_get_inheritable(ctx, f, PDF_NAME(Opt));
        e.tu = pdf_dict_get(ctx, f, PDF_NAME(TU));
        e.flags = pdf_to_int(ctx, pdf_dict_get_inheritable(ctx, f, PDF_NAME(Ff)));
        e.maxLen = pdf_to_int(ctx, pdf_dict_get_inheritable(ctx, f, PDF_NAME(MaxLen)));
        e.number = pdf_is_indirect(ctx, f) ? pdf_to_num(ctx, f) : pdf_obj_parent_num(ctx, f);
        // /Q and /DA are inherited from the parents, then from the form.
        pdf_obj* form = pdf_dict_getl(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root), PDF_NAME(AcroForm), nullptr);
        pdf_obj* q = pdf_dict_get_inheritable(ctx, f, PDF_NAME(Q));
        e.quadding = pdf_to_int(ctx, q ? q : pdf_dict_get(ctx, form, PDF_NAME(Q)));
        pdf_obj* da = pdf_dict_get_inheritable(ctx, f, PDF_NAME(DA));
        e.appearance = pdf_to_str_buf(ctx, da ? da : pdf_dict_get(ctx, form, PDF_NAME(DA)));
    });
    if (e.appearance[0] != 0) {
        try {
            guarded(ctx, [&] {
                const char* font = nullptr;
                int n = 0;
                float colour[4];
                pdf_parse_default_appearance(ctx, e.appearance, &font, &e.fontSize, &n, colour);
            });
        } catch (const std::exception&) {
            e.fontSize = 0.0f;  // a malformed /DA: the size is not known
        }
    }
    field.type = typeOf(ctx, e.ft, e.flags);
    const int flags = e.flags;
    field.readOnly = flags & PDF_FIELD_IS_READ_ONLY;
    field.required = flags & PDF_FIELD_IS_REQUIRED;
    if (field.type == FormFieldType::Text) {
        field.multiLine = flags & PDF_TX_FIELD_IS_MULTILINE;
        field.password = flags & PDF_TX_FIELD_IS_PASSWORD;
        field.comb = flags & PDF_TX_FIELD_IS_COMB;
        field.maxLength = std::max(0, e.maxLen);
    }
    if (field.type == FormFieldType::ListBox) field.multiSelect = flags & PDF_CH_FIELD_IS_MULTI_SELECT;
    if (field.type == FormFieldType::ComboBox) field.editable = flags & PDF_CH_FIELD_IS_EDIT;
    field.tooltip = text(ctx, e.tu);
    field.fontSize = std::max(0.0f, e.fontSize);
    field.alignment = std::clamp(e.quadding, 0, 2);

    const bool signature = field.type == FormFieldType::Signature;
    const std::vector<std::string> current = signature ? std::vector<std::string>() : values(ctx, e.v);
    const std::vector<std::string> defaults = signature ? std::vector<std::string>() : values(ctx, e.dv);
    field.value = current.empty() ? "" : current.front();
    field.defaultValue = defaults.empty() ? "" : defaults.front();
    const bool button = field.type == FormFieldType::CheckBox || field.type == FormFieldType::RadioButton;
    if (button && field.value.empty()) field.value = "Off";
    if (button && field.defaultValue.empty()) field.defaultValue = "Off";

    if (field.type == FormFieldType::ComboBox || field.type == FormFieldType::ListBox) {
        field.selected = current;
        const int n = guarded(ctx, [&] { return pdf_array_len(ctx, e.opt); });
        for (int i = 0; i < n; ++i) {
            pdf_obj* entry = guarded(ctx, [&] { return pdf_array_get(ctx, e.opt, i); });
            const int pair = guarded(ctx, [&] { return pdf_array_len(ctx, entry) >= 2; });
            FormOption option;
            if (pair) {
                option.exportValue = text(ctx, guarded(ctx, [&] { return pdf_array_get(ctx, entry, 0); }));
                option.label = text(ctx, guarded(ctx, [&] { return pdf_array_get(ctx, entry, 1); }));
            } else {
                option.exportValue = option.label = text(ctx, entry);
            }
            field.options.push_back(std::move(option));
        }
    }

    for (pdf_obj* w : node.widgets) {
        FormWidget widget;
        struct WidgetRead {
            fz_rect rect;
            int number;
            const char* on;
            pdf_obj* page;
        } r{};
        guarded(ctx, [&] {
            r.rect = pdf_dict_get_rect(ctx, w, PDF_NAME(Rect));
            r.number = pdf_is_indirect(ctx, w) ? pdf_to_num(ctx, w) : pdf_obj_parent_num(ctx, w);
            r.on = onState(ctx, w);
            r.page = pdf_dict_get(ctx, w, PDF_NAME(P));
        });
        const fz_rect rect = normalized(r.rect);
        widget.rect = Rect{rect.x0, rect.y1, rect.x1, rect.y0};
        auto found = std::lower_bound(pageOf.begin(), pageOf.end(), std::make_pair(r.number, -1));
        if (r.number > 0 && found != pageOf.end() && found->first == r.number) widget.page = found->second;
        if (button) {
            widget.onState = r.on ? r.on : "Yes";
            field.exportValues.push_back(widget.onState);
        }
        field.widgets.push_back(std::move(widget));
    }
    auto at = std::find(calculation.begin(), calculation.end(), e.number);
    if (e.number > 0 && at != calculation.end()) field.calculationOrder = int32_t(at - calculation.begin());
    return field;
}

std::vector<FormField> ReadFormFields(const IDocument& document) {
    const auto* pdf = dynamic_cast<const PdfDocument*>(&document);
    if (!pdf) throw std::invalid_argument("not a PDF document");
    fz_context* ctx = pdf->Core()->ctx;
    pdf_document* doc = pdf->Core()->doc;
    const std::vector<FieldNode> nodes = WalkFields(ctx, doc);
    if (nodes.empty()) return {};
    std::vector<int> calculation;
    pdf_obj* co = guarded(ctx, [&] {
        return pdf_dict_gets(ctx, pdf_dict_getl(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root), PDF_NAME(AcroForm), NULL), "CO");
    });
    const int n = guarded(ctx, [&] { return pdf_array_len(ctx, co); });
    for (int i = 0; i < n; ++i) calculation.push_back(guarded(ctx, [&] { return pdf_to_num(ctx, pdf_array_get(ctx, co, i)); }));
    const auto pages = AnnotationPages(ctx, doc);
    std::vector<FormField> fields;
    fields.reserve(nodes.size());
    for (const FieldNode& node : nodes) fields.push_back(ReadField(ctx, doc, node, calculation, pages));
    return fields;
}

}  // namespace Orvane::PDF::Pdfium
