#pragma once

// Whether a form script may run: a conservative check over its source that
// holds only for scripts whose running time is bounded by their length. It
// refuses loops, user functions and accessors (no recursion), whatever
// compiles or evaluates code, regular expressions (backtracking), computed
// member access and property names outside a known set (so that no
// built-in can be reached by a name the check cannot see), arrays of a
// length given by a number, and anything it cannot read. The document's own
// helper functions (AF...), arithmetic, conditions, event.value / event.rc,
// this.getField(...) and app.alert(...) pass.

#include <string>
#include <string_view>

namespace Orvane::PDF::Pdfium {

// Empty when the script may run, else why not (for the log).
std::string ScriptRefusal(std::string_view source);

}  // namespace Orvane::PDF::Pdfium
