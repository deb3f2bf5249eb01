#pragma once

// The fields of a document's form (its interactive form): listed, filled in,
// reset to their defaults, and turned into page content.
//
// Every operation is queued to the service's worker and answered through a
// std::future, in the order asked: a list asked for after a change sees it.
// Through the future: an id that is not open gives std::invalid_argument
// ("Invalid doc handle"), a field name the form does not have or a value the
// field cannot take std::invalid_argument naming it, a value the document's
// own scripts refuse std::invalid_argument carrying the script's message, an
// engine failure Orvane::Exception, a request past its time budget what the
// engine limits say.
//
// A field is named by its fully qualified name ("person.address.city"). Text
// is UTF-8; rectangles are in page space (PDF points, origin at the
// bottom-left, y upward); pages are counted from 0.
//
// The document's scripts (keystroke, validation, calculation) run as a
// reader runs them, but only scripts that surely end soon: a script with a
// loop, a function of its own, a regular expression or code built from
// strings is not run (it counts as a script that did nothing, and is
// logged), and when a document-level script is such a script, none of the
// document's scripts run. Scripts reach neither the file system, the network
// nor the application (alerts become the message of a refused value; mail,
// printing and opening addresses do nothing). A script that fails leaves the
// value as the field's own rules take it.
//
// Every change marks the document changed (no picture, tile or recorded page
// made afterwards shows the old values) and, when a field's value changed,
// calls the callback given to SetCallbackOnFormChange once for the request.
// These operations do not look at the document's permissions: the
// application decides (IPDFProvider's permission queries).

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

enum class FormFieldType { Text, CheckBox, RadioButton, ComboBox, ListBox, PushButton, Signature };

// One widget (the field's appearance on a page).
struct FormWidget {
    int32_t page = -1;  // -1 when no page lists it
    Rect rect;          // top >= bottom
    // The appearance state a check box or radio button shows when on
    // (its export value); empty for other fields.
    std::string onState;
};

// One entry of a combo or list box.
struct FormOption {
    std::string exportValue;  // what the field's value holds when chosen
    std::string label;        // what the reader shows (the export value when the file gives none)
};

struct FormField {
    std::string name;  // fully qualified
    FormFieldType type = FormFieldType::Text;
    // The value: a text field's text, the chosen option's export value, a
    // check box's or radio group's on state ("Off" when off); the first
    // selected option of a list box (all of them in selected).
    std::string value;
    std::string defaultValue;
    std::vector<std::string> selected;     // list and combo boxes: every selected export value
    std::vector<FormOption> options;       // combo and list boxes
    std::vector<std::string> exportValues; // check boxes and radio groups: each widget's on state, in widget order
    bool readOnly = false;
    bool required = false;
    bool multiLine = false;
    bool password = false;
    bool comb = false;
    bool multiSelect = false;
    bool editable = false;  // a combo box that takes any text
    int32_t maxLength = 0;  // 0: no limit
    // How the field's text is drawn: its font size in points (0: sized to
    // fit the widget) and alignment (0 left, 1 centred, 2 right).
    float fontSize = 0.0f;
    int32_t alignment = 0;
    std::string tooltip;
    std::vector<FormWidget> widgets;
    // Place in the form's calculation order (0 first), -1 when the form does
    // not calculate the field.
    int32_t calculationOrder = -1;
};

class IFormProvider {
public:
    virtual ~IFormProvider() = default;

    // Every terminal field, in the order of the form's field tree (depth
    // first). Empty when the document has no form.
    virtual std::future<std::vector<FormField>> GetFormFields(const int64_t& id) = 0;

    // Sets a text field's text, or chooses one option of a combo or list box
    // (by export value or label; an editable combo box takes any text), or
    // sets a check box or radio group to one of its on states or "Off".
    // Refused (std::invalid_argument): an unknown field, a read-only field,
    // a push button or signature, an option or state the field does not
    // have, text longer than the field's maximum length, a value the
    // document's scripts refuse.
    virtual std::future<void> SetFieldValue(const int64_t& id, const std::string& name, const std::string& value) = 0;
    // Selects options of a list box (several only when it allows multiple
    // selection; none clears it), by export value or label.
    virtual std::future<void> SelectFieldOptions(const int64_t& id, const std::string& name,
                                                 const std::vector<std::string>& values) = 0;
    // Checks (its first on state) or unchecks a check box.
    virtual std::future<void> SetFieldChecked(const int64_t& id, const std::string& name, bool checked) = 0;
    // Resets the named fields (all of them when names is empty) to their
    // default values; an unknown name is refused before anything changes.
    virtual std::future<void> ResetFormFields(const int64_t& id, const std::vector<std::string>& names) = 0;
    // Draws every field's appearance into its page's content and removes
    // the fields and the form: the document shows the same, and nothing is
    // left to fill in. Other annotations stay.
    virtual std::future<void> FlattenForm(const int64_t& id) = 0;

    // Whether the document's permissions forbid filling in its form (false
    // when it was opened with its owner password). Answered at once, as
    // IPDFProvider's permission queries are; like them it gates nothing
    // here. std::invalid_argument("Invalid doc handle") for an id that is
    // not open.
    virtual bool IsFillFormProtected(const int64_t& id) = 0;
};

}  // namespace Orvane::PDF
