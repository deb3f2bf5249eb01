// Which form scripts may run: the ones that surely end, read by the check
// over their source. Each row is a script and whether it runs.

#include <gtest/gtest.h>

#include "engine/ScriptCheck.h"

namespace {

struct Row {
    const char* source;
    bool runs;
};

TEST(ScriptCheck, RunsOnlyScriptsThatSurelyEnd) {
    const Row rows[] = {
        // What real forms do.
        {"AFSimple_Calculate(\"SUM\", new Array (\"A\", \"B\"));", true},
        {"AFSimple_Calculate('SUM', ['A', 'B']);", true},
        {"AFNumber_Format(2, 0, 0, 0, \"\", true); AFRange_Validate(true, 0, true, 100);", true},
        {"var a = this.getField(\"A\").value; var b = this.getField('B').value;\n"
         "event.value = (a + b) / 2 * 1.5e3 - .5; // half\n/* done */",
         true},
        {"if (event.value > 10) { app.alert(\"Too big\"); event.rc = false; } else event.rc = true;", true},
        {"event.value = x ? \"a\\\"/b\" : Math.round(y) / 100; z /= 2;", true},
        {"event.value = (a) / (b) + c[0];", false},  // c[0]: computed access
        {"event.value = [1, 2] / 2;", true},
        {"", true},
        // Loops, functions, accessors.
        {"while (true) {}", false},
        {"for (;;);", false},
        {"do {} while (1)", false},
        {"function f() { f(); } f();", false},
        {"var o = { get v() { return o.v; } }; o.v;", false},
        {"x++;", false},
        // Code made from strings, or reached by names the check cannot see.
        {"eval('while(1){}')", false},
        {"Function('while(1){}')()", false},
        {"(0).constructor.constructor('x')()", false},
        {"this['ev' + 'al']('1')", false},
        {"app.setTimeOut('x', 1)", false},
        {"with (event) value = 1;", false},
        {"\\u0065val('1')", false},
        {"`template`", false},
        // Regular expressions; '/' after a name, number, string or ')' divides.
        {"/a+/.test(event.value)", false},
        {"x = /(a*)*b/;", false},
        {"if (x) { } /a/.test(y)", false},
        {"return /a/", false},
        // After "if (...)" a statement, which may be a regular expression hiding
        // what follows from a reader that took the '/' for a division.
        {"if (x) /'/; while (1) {} //'", false},
        {"if (x) /(a+)+$/[\"test\"](\"aaaa!\")", false},
        {"// note\xE2\x80\xA8while (1) {}", false},
        {"x = 1while", false},
        {"x = 0x1F + 1.5e-3 + .5 + 1..toFixed(1)", true},
        {"x = (1))", false},
        {"event.value.match(\"a\")", false},
        {"event.value.split(\",\")", false},
        {"new RegExp(\"a\")", false},
        // Arrays of a computed length, lengths set.
        {"new Array(1e9).toString()", false},
        {"var A = Array; event.value = new A(1e9);", false},
        {"var a = []; a.length = 4e9;", false},
        {"event.value = a.length == 2;", true},
        // What cannot be read.
        {"event.value = \"open", false},
        {"/* open", false},
        {"event.value = 'line\nbreak';", false},
    };
    for (const Row& row : rows) {
        const std::string why = Orvane::PDF::Pdfium::ScriptRefusal(row.source);
        EXPECT_EQ(why.empty(), row.runs) << row.source << " -> " << why;
    }
}

}  // namespace
