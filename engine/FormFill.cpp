// Filling a form in: the value is checked against the field's own rules,
// then set through MuPDF's form functions (which run the document's
// keystroke, validation and calculation scripts when scripts are on), and
// the appearances of the widgets whose fields changed are made again at
// once, so that the next picture shows the new values.

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "engine/DocumentCore.h"
#include "engine/Form.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

struct Form {
    PdfDocument& pdf;
    fz_context* ctx;
    pdf_document* doc;
    std::vector<FieldNode> nodes;
    std::vector<std::pair<int, int>> pages;  // widget object number -> page
};

Form openForm(IDocument& document) {
    auto* pdf = dynamic_cast<PdfDocument*>(&document);
    if (!pdf) throw std::invalid_argument("not a PDF document");
    fz_context* ctx = pdf->Core()->ctx;
    pdf_document* doc = pdf->Core()->doc;
    Form form{*pdf, ctx, doc, WalkFields(ctx, doc), AnnotationPages(ctx, doc)};
    return form;
}

const FieldNode& findField(const Form& form, const std::string& name) {
    for (const FieldNode& node : form.nodes) {
        if (node.name == name) return node;
    }
    throw std::invalid_argument("no form field named '" + name + "'");
}

// What a change is compared with: every field's value and selection.
std::map<std::string, std::vector<std::string>> snapshot(const Form& form) {
    std::map<std::string, std::vector<std::string>> values;
    for (const FieldNode& node : form.nodes) {
        FormField field = ReadField(form.ctx, form.doc, node, {}, {});
        field.selected.insert(field.selected.begin(), field.value);
        for (const FormWidget& widget : field.widgets) field.selected.push_back(widget.onState);
        values[node.name] = std::move(field.selected);
    }
    return values;
}

int pageOf(const Form& form, pdf_obj* widget) {
    const int number = guarded(form.ctx, [&] {
        return pdf_is_indirect(form.ctx, widget) ? pdf_to_num(form.ctx, widget) : pdf_obj_parent_num(form.ctx, widget);
    });
    auto found = std::lower_bound(form.pages.begin(), form.pages.end(), std::make_pair(number, -1));
    return (number > 0 && found != form.pages.end() && found->first == number) ? found->second : -1;
}

// The page's widget annotation for obj, with the page that holds it.
struct LoadedWidget {
    PageHandle page;
    pdf_annot* annot = nullptr;
};

LoadedWidget loadWidget(const Form& form, pdf_obj* obj) {
    LoadedWidget loaded;
    const int index = pageOf(form, obj);
    if (index < 0) return loaded;
    fz_context* ctx = form.ctx;
    loaded.page = PageHandle(ctx, guarded(ctx, [&] { return fz_load_page(ctx, &form.doc->super, index); }));
    auto* page = reinterpret_cast<pdf_page*>(loaded.page.get());
    loaded.annot = guarded(ctx, [&] {
        for (pdf_annot* w = pdf_first_widget(ctx, page); w; w = pdf_next_widget(ctx, w)) {
            if (pdf_annot_obj(ctx, w) == obj) return w;
        }
        return (pdf_annot*)NULL;
    });
    return loaded;
}

[[noreturn]] void refuse(const std::string& name, const std::string& why) {
    throw std::invalid_argument("form field '" + name + "': " + why);
}

size_t codePoints(const std::string& text) {
    return size_t(std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

// Runs the calculations a change asked for, makes the appearances of every
// page with widgets again, and tells whether any field's value changed
// since before. The document is marked changed either way.
bool finish(Form& form, const std::map<std::string, std::vector<std::string>>& before) {
    fz_context* ctx = form.ctx;
    pdf_document* doc = form.doc;
    form.pdf.Core()->Changed();
    if (doc->recalculate && doc->js) guarded(ctx, [&] { pdf_calculate_form(ctx, doc); });
    std::set<int> pages;
    for (const auto& entry : form.pages) pages.insert(entry.second);
    for (int index : pages) {
        PageHandle page(ctx, guarded(ctx, [&] { return fz_load_page(ctx, &doc->super, index); }));
        guarded(ctx, [&] { pdf_update_page(ctx, reinterpret_cast<pdf_page*>(page.get())); });
    }
    form.pdf.Core()->Changed();
    // Edited objects may have moved to the document's new section: the tree is read again.
    form.nodes = WalkFields(ctx, doc);
    return snapshot(form) != before;
}

FormField describe(const Form& form, const FieldNode& node) {
    return ReadField(form.ctx, form.doc, node, {}, {});
}

void checkChangeable(const FormField& field) {
    if (field.readOnly) refuse(field.name, "the field is read-only");
    if (field.type == FormFieldType::PushButton) refuse(field.name, "a push button has no value");
    if (field.type == FormFieldType::Signature) refuse(field.name, "a signature field is not filled in here");
}

// The export value an option names (by export value, then by label).
const FormOption* findOption(const FormField& field, const std::string& value) {
    for (const FormOption& option : field.options) {
        if (option.exportValue == value) return &option;
    }
    for (const FormOption& option : field.options) {
        if (option.label == value) return &option;
    }
    return nullptr;
}

void setText(Form& form, const FieldNode& node, const FormField& field, const std::string& value,
             const ScriptMessages& messages) {
    // As a reader commits typed text: the keystroke script judges the value
    // being committed (and may change it), the validation script judges the
    // result, then it is stored on the field and the calculations are due.
    fz_context* ctx = form.ctx;
    pdf_document* doc = form.doc;
    const int accepted = guarded(ctx, [&] {
        pdf_keystroke_event event = {};
        event.value = value.c_str();
        event.change = "";
        event.selStart = -1;
        event.selEnd = -1;
        event.willCommit = 1;
        volatile int ok = 0;  // set inside the frame, read after it
        fz_try(ctx) {
            ok = pdf_field_event_keystroke(ctx, doc, node.field, &event);
            if (ok) ok = pdf_set_field_value(ctx, doc, node.field, event.newValue ? event.newValue : value.c_str(), 0);
        }
        fz_always(ctx) {
            fz_free(ctx, event.newValue);
            fz_free(ctx, event.newChange);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
        return ok;
    });
    if (!accepted) {
        const std::string why = messages.Last().empty() ? "the document's script refused the value" : messages.Last();
        refuse(field.name, why);
    }
}

// Turns the widget whose on state is state on (or every widget off for
// "Off"), as a click on it would.
void setButton(Form& form, const FieldNode& node, const FormField& field, const std::string& state) {
    fz_context* ctx = form.ctx;
    const bool off = state == "Off";
    if (!off && std::find(field.exportValues.begin(), field.exportValues.end(), state) == field.exportValues.end())
        refuse(field.name, "no state '" + state + "' (the field has " + std::to_string(field.exportValues.size()) +
                               " widgets)");
    for (size_t i = 0; i < node.widgets.size(); ++i) {
        pdf_obj* obj = node.widgets[i];
        const bool on = guarded(ctx, [&] {
            pdf_obj* as = pdf_dict_get(ctx, obj, PDF_NAME(AS));
            return pdf_is_name(ctx, as) && !pdf_name_eq(ctx, as, PDF_NAME(Off));
        });
        if (off ? !on : field.exportValues[i] != state) continue;
        if (!off && on) return;
        LoadedWidget widget = loadWidget(form, obj);
        if (!widget.annot) {
            // A widget no page shows: its field's value is set directly.
            guarded(ctx, [&] { pdf_set_field_value(ctx, form.doc, node.field, state.c_str(), 0); });
            return;
        }
        // Turning one widget off turns its group off.
        guarded(ctx, [&] { pdf_toggle_widget(ctx, widget.annot); });
        return;
    }
}

}  // namespace

bool SetFieldValue(IDocument& document, const std::string& name, const std::string& value) {
    Form form = openForm(document);
    const FieldNode& node = findField(form, name);
    const FormField field = describe(form, node);
    checkChangeable(field);
    EnableScripts(form.ctx, form.doc);
    const auto before = snapshot(form);
    ScriptMessages messages(form.ctx, form.doc, name);
    switch (field.type) {
        case FormFieldType::Text:
            if (field.maxLength > 0 && codePoints(value) > size_t(field.maxLength))
                refuse(name, "the text is longer than the field's " + std::to_string(field.maxLength) + " characters");
            setText(form, node, field, value, messages);
            break;
        case FormFieldType::ComboBox:
        case FormFieldType::ListBox: {
            const FormOption* option = findOption(field, value);
            if (!option && !field.editable) refuse(name, "no option '" + value + "'");
            setText(form, node, field, option ? option->exportValue : value, messages);
            break;
        }
        case FormFieldType::CheckBox:
        case FormFieldType::RadioButton:
            if (value == "Off" && field.type == FormFieldType::RadioButton && field.value != "Off") {
                const int flags = guarded(form.ctx, [&] {
                    return pdf_to_int(form.ctx, pdf_dict_get_inheritable(form.ctx, node.field, PDF_NAME(Ff)));
                });
                if (flags & PDF_BTN_FIELD_IS_NO_TOGGLE_TO_OFF) refuse(name, "one of the buttons must stay chosen");
            }
            setButton(form, node, field, value);
            break;
        default:
            break;
    }
    return finish(form, before);
}

bool SelectFieldOptions(IDocument& document, const std::string& name, const std::vector<std::string>& values) {
    Form form = openForm(document);
    const FieldNode& node = findField(form, name);
    const FormField field = describe(form, node);
    checkChangeable(field);
    if (field.type != FormFieldType::ListBox && field.type != FormFieldType::ComboBox)
        refuse(name, "not a list or combo box");
    if (values.size() > 1 && !field.multiSelect) refuse(name, "the field takes one option only");
    std::vector<std::string> chosen;
    for (const std::string& value : values) {
        const FormOption* option = findOption(field, value);
        if (!option) refuse(name, "no option '" + value + "'");
        if (std::find(chosen.begin(), chosen.end(), option->exportValue) == chosen.end())
            chosen.push_back(option->exportValue);
    }
    EnableScripts(form.ctx, form.doc);
    const auto before = snapshot(form);
    ScriptMessages messages(form.ctx, form.doc, name);
    if (chosen.size() == 1) {
        setText(form, node, field, chosen.front(), messages);
    } else {
        fz_context* ctx = form.ctx;
        pdf_obj* target = node.field;
        guarded(ctx, [&] {
            if (chosen.empty()) {
                pdf_dict_del(ctx, target, PDF_NAME(V));
            } else {
                pdf_obj* array = pdf_dict_put_array(ctx, target, PDF_NAME(V), int(chosen.size()));
                for (const std::string& value : chosen) pdf_array_push_text_string(ctx, array, value.c_str());
            }
            pdf_dict_del(ctx, target, PDF_NAME(I));
            pdf_dirty_obj(ctx, target);
            for (pdf_obj* widget : node.widgets) pdf_dirty_obj(ctx, widget);
            form.doc->resynth_required = 1;
            form.doc->recalculate = 1;
        });
    }
    return finish(form, before);
}

bool SetFieldChecked(IDocument& document, const std::string& name, bool checked) {
    Form form = openForm(document);
    const FieldNode& node = findField(form, name);
    const FormField field = describe(form, node);
    checkChangeable(field);
    if (field.type != FormFieldType::CheckBox) refuse(name, "not a check box");
    EnableScripts(form.ctx, form.doc);
    const auto before = snapshot(form);
    ScriptMessages messages(form.ctx, form.doc, name);
    setButton(form, node, field, checked ? field.exportValues.front() : "Off");
    return finish(form, before);
}

bool ResetFormFields(IDocument& document, const std::vector<std::string>& names) {
    Form form = openForm(document);
    std::vector<const FieldNode*> targets;
    for (const std::string& name : names) targets.push_back(&findField(form, name));
    if (names.empty()) {
        for (const FieldNode& node : form.nodes) targets.push_back(&node);
    }
    EnableScripts(form.ctx, form.doc);
    const auto before = snapshot(form);
    ScriptMessages messages(form.ctx, form.doc, "");
    fz_context* ctx = form.ctx;
    for (const FieldNode* node : targets) {
        guarded(ctx, [&] { pdf_field_reset(ctx, form.doc, node->field); });
        for (pdf_obj* widget : node->widgets) guarded(ctx, [&] { pdf_dirty_obj(ctx, widget); });
    }
    guarded(ctx, [&] {
        form.doc->resynth_required = 1;
        form.doc->recalculate = 1;
    });
    return finish(form, before);
}

}  // namespace Orvane::PDF::Pdfium
