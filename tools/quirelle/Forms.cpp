// Subcommands for forms: fields (list), fill and flatten. Values as people
// write them: a check box takes on/off, true/false, yes/no or its on state;
// a radio group the state of one of its buttons (or Off); a combo or list box
// one of its options (export value or label).

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Reading.h"

namespace QuirelleCli {

using namespace Orvane::PDF;
using json = nlohmann::ordered_json;

namespace {

const char* TypeName(FormFieldType type) {
    switch (type) {
        case FormFieldType::Text: return "text";
        case FormFieldType::CheckBox: return "checkbox";
        case FormFieldType::RadioButton: return "radio";
        case FormFieldType::ComboBox: return "combobox";
        case FormFieldType::ListBox: return "listbox";
        case FormFieldType::PushButton: return "button";
        case FormFieldType::Signature: return "signature";
    }
    return "text";
}

// The page (from 1) of the field's first widget on a page; 0 for none.
int FirstPage(const FormField& field) {
    for (const FormWidget& widget : field.widgets) {
        if (widget.page >= 0) return widget.page + 1;
    }
    return 0;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::vector<FormField> Fields(Session& session, int64 id) {
    return session.Service().GetFormFields(id).get();
}

const FormField* Find(const std::vector<FormField>& fields, const std::string& name) {
    for (const FormField& field : fields) {
        if (field.name == name) return &field;
    }
    return nullptr;
}

void RequireFilling(Session& session, int64 id, const std::string& file) {
    if (session.Service().IsFillFormProtected(id)) {
        throw Failure(file + ": the document does not allow filling in its form (open it with the owner "
                             "password through --password)");
    }
}

// Flattening turns the fields into page content: a change of the pages.
void RequireChanging(Session& session, int64 id, const std::string& file) {
    if (session.Service().IsEditContentProtected(id)) {
        throw Failure(file + ": the document does not allow changing its pages (open it with the owner "
                             "password through --password)");
    }
}

// Sets one field as value says; answers whether a request was made.
void Fill(Session& session, int64 id, const FormField& field, const std::string& value) {
    Quirelle& service = session.Service();
    if (field.type == FormFieldType::CheckBox) {
        const std::string word = Lower(value);
        bool on;
        if (word == "on" || word == "true" || word == "yes" || word == "1")
            on = true;
        else if (word == "off" || word == "false" || word == "no" || word == "0")
            on = false;
        else if (std::find(field.exportValues.begin(), field.exportValues.end(), value) != field.exportValues.end())
            return service.SetFieldValue(id, field.name, value).get();
        else
            throw UsageError(field.name + "=" + value + ": a check box takes on or off (true/false, yes/no)");
        return service.SetFieldChecked(id, field.name, on).get();
    }
    if (field.type == FormFieldType::RadioButton && Lower(value) == "off")
        return service.SetFieldValue(id, field.name, "Off").get();
    service.SetFieldValue(id, field.name, value).get();
}

std::vector<std::pair<std::string, std::string>> ParseAssignments(const std::vector<std::string>& assignments) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string& assignment : assignments) {
        const size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0)
            throw UsageError(assignment + ": write NAME=VALUE (see quirelle fields FILE for the names)");
        pairs.emplace_back(assignment.substr(0, equals), assignment.substr(equals + 1));
    }
    return pairs;
}

// What --from asks: the fields of the JSON that `fields --json` writes whose
// value (or selection) differs from the document's.
size_t FillFromJson(Session& session, int64 id, const std::vector<FormField>& fields, const std::string& from) {
    std::ifstream in(from);
    if (!in) throw Failure(from + ": cannot read the file");
    json values;
    try {
        values = json::parse(in);
    } catch (const json::exception& e) {
        throw UsageError(from + ": not JSON (" + e.what() + ")");
    }
    if (!values.contains("fields") || !values["fields"].is_array())
        throw UsageError(from + ": no \"fields\" list (write it as quirelle fields FILE --json does)");
    size_t filled = 0;
    for (const json& entry : values["fields"]) {
        if (!entry.is_object() || !entry.contains("name") || !entry["name"].is_string())
            throw UsageError(from + ": every field needs a \"name\"");
        const std::string name = entry["name"].get<std::string>();
        const FormField* field = Find(fields, name);
        if (!field) throw UsageError(from + ": the document has no field named " + name);
        if (field->type == FormFieldType::ListBox && entry.contains("selected") && entry["selected"].is_array()) {
            std::vector<std::string> chosen;
            for (const json& option : entry["selected"]) {
                if (!option.is_string()) throw UsageError(from + ": " + name + ": options are strings");
                chosen.push_back(option.get<std::string>());
            }
            if (chosen == field->selected) continue;
            session.Service().SelectFieldOptions(id, name, chosen).get();
            ++filled;
            continue;
        }
        if (!entry.contains("value")) continue;
        const json& value = entry["value"];
        const std::string text = value.is_string()    ? value.get<std::string>()
                                 : value.is_boolean() ? (value.get<bool>() ? "on" : "off")
                                                      : value.dump();
        if (text == field->value) continue;
        Fill(session, id, *field, text);
        ++filled;
    }
    return filled;
}

}  // namespace

int RunFields(Session& session, const FieldsOptions& options, const std::string& password) {
    const int64 id = session.Open(options.file, password);
    const std::vector<FormField> fields = Fields(session, id);
    if (options.json) {
        json list = json::array();
        for (const FormField& field : fields) {
            json entry = {{"name", field.name}, {"type", TypeName(field.type)}, {"value", field.value},
                          {"page", FirstPage(field)}};
            if (field.type == FormFieldType::ListBox) entry["selected"] = field.selected;
            if (!field.options.empty()) {
                json options = json::array();
                for (const FormOption& option : field.options) options.push_back(option.exportValue);
                entry["options"] = options;
            }
            if (!field.exportValues.empty()) entry["states"] = field.exportValues;
            if (field.readOnly) entry["readOnly"] = true;
            list.push_back(entry);
        }
        std::cout << json{{"file", options.file}, {"fields", list}}.dump(2) << "\n";
        return 0;
    }
    for (const FormField& field : fields) {
        const int page = FirstPage(field);
        std::cout << field.name << "\t" << TypeName(field.type) << "\t" << field.value << "\t"
                  << (page > 0 ? std::to_string(page) : "-") << "\n";
    }
    return 0;
}

int RunFill(Session& session, const FillOptions& options, const std::string& password) {
    options.destination.Check();
    if (options.assignments.empty() == options.from.empty())
        throw UsageError("give either NAME=VALUE pairs or --from values.json");
    const auto assignments = ParseAssignments(options.assignments);
    if (!options.destination.inPlace)
        RefuseToOverwrite(options.destination.out, options.file, "to change the file itself, use --in-place");
    CheckWritable(options.destination.inPlace ? fs::path(options.file) : fs::path(options.destination.out));
    const int64 id = session.Open(options.file, password);
    RequireFilling(session, id, options.file);
    const std::vector<FormField> fields = Fields(session, id);
    if (fields.empty()) throw Failure(options.file + ": the document has no form fields");
    size_t filled = 0;
    if (!options.from.empty()) {
        filled = FillFromJson(session, id, fields, options.from);
    } else {
        for (const auto& [name, value] : assignments) {
            const FormField* field = Find(fields, name);
            if (!field) throw UsageError(options.file + ": no field named " + name + " (see quirelle fields FILE)");
            Fill(session, id, *field, value);
            ++filled;
        }
    }
    session.Save(id, options.destination);
    std::cout << (options.destination.inPlace ? options.file : options.destination.out) << ": " << filled
              << (filled == 1 ? " field" : " fields") << " filled\n";
    return 0;
}

int RunFlatten(Session& session, const FlattenOptions& options, const std::string& password) {
    options.destination.Check();
    if (!options.destination.inPlace)
        RefuseToOverwrite(options.destination.out, options.file, "to change the file itself, use --in-place");
    CheckWritable(options.destination.inPlace ? fs::path(options.file) : fs::path(options.destination.out));
    const int64 id = session.Open(options.file, password);
    RequireChanging(session, id, options.file);
    const size_t count = Fields(session, id).size();
    if (count == 0) throw Failure(options.file + ": the document has no form fields");
    session.Service().FlattenForm(id).get();
    session.Save(id, options.destination);
    std::cout << (options.destination.inPlace ? options.file : options.destination.out) << ": " << count
              << (count == 1 ? " field" : " fields") << " turned into page content\n";
    return 0;
}

}  // namespace QuirelleCli
