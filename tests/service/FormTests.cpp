// Form fields through the service: listed, filled in (each kind), refused
// where the field's rules say no, saved and read back by this library and by
// other tools, drawn with the new values, reset, flattened, and the
// form-change callback once per request that changed a value.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using Kind = FieldLayout::Kind;

class FormService : public ServiceTest {
protected:
    // One field of every kind on page 0 of a 612 x 792 page.
    std::filesystem::path EveryKind(const std::string& name = "form.pdf") {
        const auto path = temp.File(name);
        PdfBuilder builder;
        builder.AddNumberedPages(2);
        FieldLayout name_{Kind::Text, "name", "Ann", {}, {{0, {100, 700, 300, 680}}}};
        name_.maxLength = 12;
        name_.tooltip = "Your name";
        name_.defaultValue = "Ann";
        builder.AddField(name_)
            .AddField({Kind::CheckBox, "agree", "Off", {}, {{0, {100, 650, 115, 635}}}})
            .AddField({Kind::Radio, "size", "s", {"s", "m", "l"},
                       {{0, {100, 600, 115, 585}}, {0, {130, 600, 145, 585}}, {1, {160, 600, 175, 585}}}})
            .AddField({Kind::Choice, "colour", "Red", {"Red", "Green", "Blue"}, {{0, {100, 550, 250, 530}}}});
        FieldLayout list{Kind::List, "fruit", "", {"Apple", "Pear", "Plum"}, {{0, {100, 500, 250, 440}}}};
        list.flags = 2097152;  // multiple selection
        builder.AddField(list).AddField({Kind::PushButton, "go", "", {}, {{0, {300, 650, 360, 630}}}});
        builder.AddField({Kind::Signature, "signed", "", {}, {{0, {300, 600, 400, 560}}}});
        FieldLayout fixed{Kind::Text, "fixed", "locked", {}, {{0, {300, 500, 450, 480}}}};
        fixed.flags = 1;  // read-only
        builder.AddField(fixed);
        builder.AddField({Kind::Text, "city", "Oslo", {}, {{0, {100, 400, 250, 380}}}, false, "address"});
        builder.Save(path);
        return path;
    }
    static const FormField& Field(const std::vector<FormField>& fields, const std::string& name) {
        for (const FormField& field : fields) {
            if (field.name == name) return field;
        }
        throw std::runtime_error("no field " + name);
    }
    static std::string Command(const std::string& command) {
        std::string out;
        if (FILE* pipe = popen(command.c_str(), "r")) {
            char buffer[4096];
            size_t n;
            while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
            pclose(pipe);
        }
        return out;
    }
};

TEST_F(FormService, ListsEveryKindWithItsFlagsAndWidgets) {
    const int64_t id = Open(EveryKind());
    const std::vector<FormField> fields = Await(service->GetFormFields(id));
    std::vector<std::string> names;
    for (const FormField& field : fields) names.push_back(field.name);
    EXPECT_EQ(names, (std::vector<std::string>{"name", "agree", "size", "colour", "fruit", "go", "signed", "fixed",
                                               "address.city"}));
    const FormField& name = Field(fields, "name");
    EXPECT_EQ(name.type, FormFieldType::Text);
    EXPECT_EQ(name.value, "Ann");
    EXPECT_EQ(name.maxLength, 12);
    EXPECT_EQ(name.tooltip, "Your name");
    EXPECT_EQ(name.fontSize, 10.0f);  // from the field's /DA
    ASSERT_EQ(name.widgets.size(), 1u);
    EXPECT_EQ(Sides(name.widgets[0].rect), (std::array<double, 4>{100, 700, 300, 680}));
    const FormField& size = Field(fields, "size");
    EXPECT_EQ(size.type, FormFieldType::RadioButton);
    EXPECT_EQ(size.exportValues, (std::vector<std::string>{"s", "m", "l"}));
    EXPECT_EQ(size.widgets[2].page, 1);
    EXPECT_EQ(Field(fields, "agree").value, "Off");
    EXPECT_EQ(Field(fields, "colour").type, FormFieldType::ComboBox);
    EXPECT_EQ(Field(fields, "colour").options.size(), 3u);
    EXPECT_TRUE(Field(fields, "fruit").multiSelect);
    EXPECT_EQ(Field(fields, "go").type, FormFieldType::PushButton);
    EXPECT_EQ(Field(fields, "signed").type, FormFieldType::Signature);
    EXPECT_TRUE(Field(fields, "fixed").readOnly);

    auto notOpen = service->GetFormFields(kNotOpen);
    EXPECT_THROW(Await(std::move(notOpen)), std::invalid_argument);
    EXPECT_TRUE(Await(service->GetFormFields(OpenNumbered(1))).empty());
}

TEST_F(FormService, EveryKindFilledSavedReopenedAndReadByOtherTools) {
    const int64_t id = Open(EveryKind());
    Await(service->SetFieldValue(id, "name", "Bjorn Berg"));
    Await(service->SetFieldChecked(id, "agree", true));
    Await(service->SetFieldValue(id, "size", "l"));
    Await(service->SetFieldValue(id, "colour", "Blue"));
    Await(service->SelectFieldOptions(id, "fruit", {"Pear", "Plum"}));
    Await(service->SetFieldValue(id, "address.city", "Bergen"));
    const auto saved = temp.File("filled.pdf");
    ASSERT_TRUE(Await(service->SaveDocumentAs(id, saved.string())));

    const int64_t again = Open(saved);
    const std::vector<FormField> fields = Await(service->GetFormFields(again));
    EXPECT_EQ(Field(fields, "name").value, "Bjorn Berg");
    EXPECT_EQ(Field(fields, "agree").value, "Yes");
    EXPECT_EQ(Field(fields, "size").value, "l");
    EXPECT_EQ(Field(fields, "colour").value, "Blue");
    EXPECT_EQ(Field(fields, "fruit").selected, (std::vector<std::string>{"Pear", "Plum"}));
    EXPECT_EQ(Field(fields, "address.city").value, "Bergen");

    EXPECT_EQ(std::system(("qpdf --check '" + saved.string() + "' > /dev/null 2>&1").c_str()), 0);
    const std::string text = Command("mutool draw -F txt '" + saved.string() + "' 1 2>/dev/null");
    EXPECT_NE(text.find("Bjorn Berg"), std::string::npos) << text;
    EXPECT_NE(text.find("Bergen"), std::string::npos) << text;
}

TEST_F(FormService, RefusesWhatTheFieldDoesNotTake) {
    const int64_t id = Open(EveryKind());
    const struct {
        const char* name;
        const char* value;
    } refused[] = {
        {"fixed", "changed"},           // read-only
        {"missing", "x"},               // no such field
        {"name", "far too long a name"},// over its maximum length
        {"colour", "Purple"},           // not an option
        {"size", "xl"},                 // not a state
        {"go", "pressed"},              // a push button
        {"signed", "me"},               // a signature
    };
    for (const auto& entry : refused) {
        auto refusedChange = service->SetFieldValue(id, entry.name, entry.value);
        EXPECT_THROW(Await(std::move(refusedChange)), std::invalid_argument) << entry.name;
    }
    auto single = service->SelectFieldOptions(id, "colour", {"Red", "Blue"});
    EXPECT_THROW(Await(std::move(single)), std::invalid_argument);
    const std::vector<FormField> fields = Await(service->GetFormFields(id));
    EXPECT_EQ(Field(fields, "fixed").value, "locked");
    EXPECT_EQ(Field(fields, "name").value, "Ann");
}

TEST_F(FormService, DrawsNewValuesInsideTheWidgetOnlyAndRadioGroupsStayExclusive) {
    const int64_t id = Open(EveryKind());
    const QImage before = Await(service->GeneratePageImage(id, 0, 612, 792)).convertToFormat(QImage::Format_RGB32);
    Await(service->SetFieldValue(id, "name", "WWWWWW"));
    Await(service->SetFieldValue(id, "size", "m"));
    const QImage after = Await(service->GeneratePageImage(id, 0, 612, 792)).convertToFormat(QImage::Format_RGB32);
    // Pixels in image space (y down) of the two widgets that changed.
    auto inside = [](int x, int y) {
        const bool name = x >= 99 && x <= 301 && y >= 91 && y <= 113;
        const bool radios = x >= 99 && x <= 146 && y >= 191 && y <= 208;
        return name || radios;
    };
    int changedInside = 0;
    // The filled text field's widget (image space).
    for (int y = 90; y < 114; ++y) {
        for (int x = 98; x < 303; ++x) {
            if (before.pixel(x, y) == after.pixel(x, y)) continue;
            ASSERT_TRUE(inside(x, y)) << x << "," << y;
            ++changedInside;
        }
    }
    EXPECT_GT(changedInside, 0);
    // The square of "m" is drawn, the one of "s" no more.
    EXPECT_LT(qGray(after.pixel(137, 200)), 128);
    EXPECT_GT(qGray(after.pixel(107, 200)), 128);
    const std::vector<FormField> fields = Await(service->GetFormFields(id));
    EXPECT_EQ(Field(fields, "size").value, "m");
}

TEST_F(FormService, CallbackOncePerChangingRequestAndResetRestoresDefaults) {
    const int64_t id = Open(EveryKind());
    std::atomic<int> calls{0};
    service->SetCallbackOnFormChange(id, [&] { ++calls; });
    Await(service->SetFieldValue(id, "name", "Eve"));
    EXPECT_EQ(calls.load(), 1);
    Await(service->SetFieldValue(id, "name", "Eve"));  // the same value: nothing changed
    EXPECT_EQ(calls.load(), 1);
    Await(service->SetFieldChecked(id, "agree", true));
    Await(service->SelectFieldOptions(id, "fruit", {"Apple"}));
    EXPECT_EQ(calls.load(), 3);
    auto refused = service->SetFieldValue(id, "fixed", "x");
    EXPECT_THROW(Await(std::move(refused)), std::invalid_argument);
    EXPECT_EQ(calls.load(), 3);
    Await(service->ResetFormFields(id, {"name"}));
    EXPECT_EQ(calls.load(), 4);
    std::vector<FormField> fields = Await(service->GetFormFields(id));
    EXPECT_EQ(Field(fields, "name").value, "Ann");
    EXPECT_EQ(Field(fields, "agree").value, "Yes");
    Await(service->ResetFormFields(id, {}));
    fields = Await(service->GetFormFields(id));
    EXPECT_EQ(Field(fields, "agree").value, "Off");
    EXPECT_EQ(calls.load(), 5);
}

// Filling in is allowed by bit 6 (annotate) or, from revision 3 on, by bit
// 9 alone; the owner's password lifts every restriction.
TEST_F(FormService, ReportsWhetherThePermissionsAllowFillingIn) {
    constexpr int32_t kAll = -4, kAnnotate = 1 << 5, kFill = 1 << 8;
    const struct {
        int32_t permissions;
        std::string password;
        bool forbidden;
    } cases[] = {
        {kAll, "", false},
        {kAll & ~kAnnotate, "", false},
        {kAll & ~kFill, "", false},
        {kAll & ~kAnnotate & ~kFill, "", true},
        {kAll & ~kAnnotate & ~kFill, "owner", false},
    };
    int n = 0;
    for (const auto& c : cases) {
        const auto path = temp.File("locked" + std::to_string(n++) + ".pdf");
        QuirelleTest::Encryption encryption;
        encryption.ownerPassword = "owner";
        encryption.permissions = c.permissions;
        PdfBuilder().AddNumberedPages(1).Encrypt(encryption).Save(path);
        const int64_t id = Open(path, c.password);
        EXPECT_EQ(service->IsFillFormProtected(id), c.forbidden) << path << " " << c.password;
    }
    EXPECT_THROW(service->IsFillFormProtected(12345), std::invalid_argument);
}

TEST_F(FormService, FlattenedFormShowsTheSameAndHasNoFields) {
    const int64_t id = Open(EveryKind());
    Await(service->SetFieldValue(id, "name", "Flat Out"));
    const QImage before = Await(service->GeneratePageImage(id, 0, 612, 792)).convertToFormat(QImage::Format_RGB32);
    Await(service->FlattenForm(id));
    EXPECT_TRUE(Await(service->GetFormFields(id)).empty());
    const auto saved = temp.File("flat.pdf");
    ASSERT_TRUE(Await(service->SaveDocumentAs(id, saved.string())));
    const int64_t again = Open(saved);
    EXPECT_TRUE(Await(service->GetFormFields(again)).empty());
    const QImage after = Await(service->GeneratePageImage(again, 0, 612, 792)).convertToFormat(QImage::Format_RGB32);
    int differing = 0;
    QRect where;
    // Every field looks as it did, those the file drew and those it left to
    // the reader; only the unsigned signature field's sign-here mark, which
    // the reader draws, is gone (its widget, in image space).
    const QRect signature(300, 192, 100, 40);
    for (int y = 0; y < before.height(); ++y) {
        for (int x = 0; x < before.width(); ++x) {
            if (before.pixel(x, y) == after.pixel(x, y) || signature.contains(x, y)) continue;
            ++differing;
            where |= QRect(x, y, 1, 1);
        }
    }
    EXPECT_LT(differing, 50) << where.x() << "," << where.y() << " " << where.width() << "x" << where.height();
    EXPECT_EQ(std::system(("qpdf --check '" + saved.string() + "' > /dev/null 2>&1").c_str()), 0);
    EXPECT_NE(Command("mutool draw -F txt '" + saved.string() + "' 1 2>/dev/null").find("Flat Out"), std::string::npos);
}

// The document's scripts: a calculated total, a validation that refuses, and
// scripts that would never end, which are not run.
TEST_F(FormService, ScriptsCalculateValidateAndNeverHang) {
    const auto path = temp.File("scripted.pdf");
    PdfBuilder builder;
    builder.AddNumberedPages(1);
    builder.AddField({Kind::Text, "a", "", {}, {{0, {100, 700, 200, 680}}}})
        .AddField({Kind::Text, "b", "", {}, {{0, {100, 650, 200, 630}}}});
    FieldLayout total{Kind::Text, "total", "", {}, {{0, {100, 600, 200, 580}}}, true};
    total.calculateScript = "AFSimple_Calculate(\"SUM\", new Array(\"a\", \"b\"));";
    FieldLayout age{Kind::Text, "age", "", {}, {{0, {300, 700, 400, 680}}}};
    age.validateScript = "if (event.value > 120) { app.alert(\"Nobody is that old\"); event.rc = false; }";
    FieldLayout spin{Kind::Text, "spin", "", {}, {{0, {300, 650, 400, 630}}}, true};
    spin.calculateScript = "while (true) {}";
    FieldLayout guard{Kind::Text, "guard", "", {}, {{0, {300, 600, 400, 580}}}};
    guard.validateScript = "for (;;) {}";
    FieldLayout amount{Kind::Text, "amount", "", {}, {{0, {300, 550, 400, 530}}}};
    amount.keystrokeScript = "AFNumber_Keystroke(2, 0, 0, 0, \"\", true);";
    builder.AddField(total).AddField(age).AddField(spin).AddField(guard).AddField(amount).Save(path);

    const int64_t id = Open(path);
    std::atomic<int> calls{0};
    service->SetCallbackOnFormChange(id, [&] { ++calls; });
    const auto started = std::chrono::steady_clock::now();
    Await(service->SetFieldValue(id, "a", "2"));
    EXPECT_EQ(Field(Await(service->GetFormFields(id)), "total").value, "2");
    Await(service->SetFieldValue(id, "b", "3.5"));
    EXPECT_EQ(Field(Await(service->GetFormFields(id)), "total").value, "5.5");
    EXPECT_EQ(calls.load(), 2);  // the total's change is part of each request

    Await(service->SetFieldValue(id, "age", "40"));
    try {
        Await(service->SetFieldValue(id, "age", "400"));
        ADD_FAILURE() << "the validation accepted 400";
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("Nobody is that old"), std::string::npos) << e.what();
    }
    EXPECT_EQ(Field(Await(service->GetFormFields(id)), "age").value, "40");
    // The keystroke script takes numbers only.
    Await(service->SetFieldValue(id, "amount", "12.50"));
    auto letters = service->SetFieldValue(id, "amount", "twelve");
    EXPECT_THROW(Await(std::move(letters)), std::invalid_argument);
    EXPECT_EQ(Field(Await(service->GetFormFields(id)), "amount").value, "12.50");

    // The looping scripts are not run: the values are taken as if they did nothing.
    Await(service->SetFieldValue(id, "guard", "x"));
    Await(service->SetFieldValue(id, "a", "10"));
    const std::vector<FormField> fields = Await(service->GetFormFields(id));
    EXPECT_EQ(Field(fields, "guard").value, "x");
    EXPECT_EQ(Field(fields, "total").value, "13.5");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

// Document-level scripts run before any field's, when scripts are turned on;
// one that would never end keeps all the document's scripts off.
TEST_F(FormService, DocumentLevelScriptsRunOnlyWhenTheyEnd) {
    const struct {
        const char* script;
        const char* total;  // after a = 2
    } rows[] = {{"var rate = 3;", "6"}, {"var rate = 3; while (true) {}", ""}};
    for (const auto& row : rows) {
        const auto path = temp.File("document-level.pdf");
        PdfBuilder builder;
        builder.AddNumberedPages(1).AddCatalogEntries(
            std::string("/Names << /JavaScript << /Names [(init) << /S /JavaScript /JS (") + row.script +
            ") >>] >> >>");
        builder.AddField({Kind::Text, "a", "", {}, {{0, {100, 700, 200, 680}}}});
        FieldLayout total{Kind::Text, "total", "", {}, {{0, {100, 600, 200, 580}}}, true};
        total.calculateScript = "event.value = this.getField(\"a\").value * rate;";
        builder.AddField(total).Save(path);
        const int64_t id = Open(path);
        Await(service->SetFieldValue(id, "a", "2"));
        const std::vector<FormField> fields = Await(service->GetFormFields(id));
        EXPECT_EQ(Field(fields, "a").value, "2") << row.script;
        EXPECT_EQ(Field(fields, "total").value, row.total) << row.script;
        Await(service->CloseDoument(id));
    }
}

}  // namespace
}  // namespace QuirelleTest
