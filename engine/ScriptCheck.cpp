// The check behind ScriptRefusal: a tokenizer for the part of JavaScript a
// form script needs, and rules over the token stream. Anything the
// tokenizer does not know (template strings, escapes in names, non-ASCII
// outside strings) is refused rather than guessed at.

#include "engine/ScriptCheck.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <vector>

namespace Orvane::PDF::Pdfium {
namespace {

enum class Kind { Name, Number, String, Punct };

struct Token {
    Kind kind;
    std::string_view text;
    bool endsCondition = false;  // the ')' of "if (...)": a statement may follow
};

bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$';
}
bool isNamePart(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

template <size_t N>
bool among(std::string_view word, const std::array<const char*, N>& words) {
    return std::any_of(words.begin(), words.end(), [&](const char* w) { return word == w; });
}

// Punctuators, longest first within each starting character.
constexpr std::array<const char*, 48> kPunctuators = {
    ">>>=", "===", "!==", "<<=", ">>=", ">>>", "...", "==", "!=", "<=", ">=", "&&", "||", "++", "--", "+=",
    "-=",   "*=",  "%=",  "&=",  "|=",  "^=",  "/=",  "<<", ">>", "=>", "{",  "}",  "(",  ")",  "[",  "]",
    ";",    ",",   "<",   ">",   "+",   "-",   "*",   "%",  "&",  "|",  "^",  "!",  "~",  "?",  ":",  "="};

// Words after which a '/' would start a regular expression.
constexpr std::array<const char*, 13> kBeforeExpression = {
    "return", "typeof", "instanceof", "in", "of", "new", "delete", "void", "throw", "case", "do", "else", "yield"};

// Words whose parenthesised part may be followed by a statement (which may
// start with a regular expression).
constexpr std::array<const char*, 4> kStatementHeads = {"if", "while", "for", "with"};

// Names that loop, define functions or accessors, compile or evaluate code,
// schedule it, or reach objects from which any of that is reachable.
constexpr std::array<const char*, 22> kRefusedNames = {
    "for",          "while",       "do",        "function", "with",      "eval",      "Function", "RegExp",
    "setTimeOut",   "setInterval", "setTimeout", "constructor", "__proto__", "prototype", "arguments", "Object",
    "JSON",         "globalThis",  "class",     "import",   "callee",    "caller"};

// Property names a script may use after '.' (not util.printf: its widths
// and precisions make work of any size out of a short format).
constexpr std::array<const char*, 71> kProperties = {
    "value",      "rc",          "change",      "changeEx",    "willCommit",  "commitKey",   "selStart",
    "selEnd",     "target",      "name",        "type",        "getField",    "alert",       "beep",
    "length",     "toFixed",     "toString",    "toUpperCase", "toLowerCase", "charAt",      "charCodeAt",
    "substr",     "substring",   "indexOf",     "slice",       "trim",        "abs",         "round",
    "floor",      "ceil",        "min",         "max",         "pow",         "sqrt",        "PI",
    "valueAsString", "display",  "hidden",      "visible",     "noPrint",     "noView",      "readonly",
    "required",   "textColor",   "fillColor",   "strokeColor", "borderStyle", "black",       "white",
    "red",        "green",       "blue",        "gray",        "transparent", "fromCharCode", "printd",     "scand",       "print",       "mailDoc",     "launchURL",   "execMenuItem", "defaultValue",
    "textFont",   "textSize",    "userName",    "numPages",    "getDate",     "getMonth",    "getFullYear",
    "getTime",    "exportValues"};

bool assignment(std::string_view p) {
    return p.size() >= 1 && p.back() == '=' && p != "==" && p != "===" && p != "!=" && p != "!==" && p != "<=" &&
           p != ">=";
}

class Checker {
public:
    explicit Checker(std::string_view source) : s_(source) {}

    std::string Run() {
        std::string why = tokenize();
        return why.empty() ? rules() : why;
    }

private:
    // A '/' here starts a regular expression (not a division).
    bool regexPosition() const {
        if (tokens_.empty()) return true;
        const Token& last = tokens_.back();
        switch (last.kind) {
            case Kind::Number:
            case Kind::String:
                return false;
            case Kind::Name:
                return among(last.text, kBeforeExpression);
            case Kind::Punct:
                return (last.text != ")" && last.text != "]") || last.endsCondition;
        }
        return true;
    }

    std::string tokenize() {
        // U+2028 and U+2029 end lines (and comments) for the interpreter.
        if (s_.find("\xE2\x80\xA8") != std::string_view::npos || s_.find("\xE2\x80\xA9") != std::string_view::npos)
            return "a line or paragraph separator";
        size_t i = 0;
        const size_t n = s_.size();
        while (i < n) {
            const char c = s_[i];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
                ++i;
            } else if (c == '/' && i + 1 < n && s_[i + 1] == '/') {
                while (i < n && s_[i] != '\n' && s_[i] != '\r') ++i;
            } else if (c == '/' && i + 1 < n && s_[i + 1] == '*') {
                const size_t end = s_.find("*/", i + 2);
                if (end == std::string_view::npos) return "an unterminated comment";
                i = end + 2;
            } else if (c == '\'' || c == '"') {
                size_t j = i + 1;
                while (j < n && s_[j] != c) {
                    if (s_[j] == '\n' || s_[j] == '\r') return "an unterminated string";
                    j += s_[j] == '\\' ? 2 : 1;
                }
                if (j >= n) return "an unterminated string";
                tokens_.push_back({Kind::String, s_.substr(i, j + 1 - i)});
                i = j + 1;
            } else if (isNameStart(c)) {
                size_t j = i;
                while (j < n && isNamePart(s_[j])) ++j;
                tokens_.push_back({Kind::Name, s_.substr(i, j - i)});
                i = j;
            } else if (isDigit(c) || (c == '.' && i + 1 < n && isDigit(s_[i + 1]))) {
                size_t j = i;
                auto digits = [&] {
                    while (j < n && isDigit(s_[j])) ++j;
                };
                if (c == '0' && i + 1 < n && (s_[i + 1] == 'x' || s_[i + 1] == 'X')) {
                    j = i + 2;
                    while (j < n && std::isxdigit(static_cast<unsigned char>(s_[j]))) ++j;
                } else {
                    digits();
                    if (j < n && s_[j] == '.') {
                        ++j;
                        digits();
                    }
                    if (j < n && (s_[j] == 'e' || s_[j] == 'E')) {
                        ++j;
                        if (j < n && (s_[j] == '+' || s_[j] == '-')) ++j;
                        digits();
                    }
                }
                // A name right after a number is no JavaScript this check reads.
                if (j < n && (isNamePart(s_[j]) || s_[j] == '\\')) return "a malformed number";
                tokens_.push_back({Kind::Number, s_.substr(i, j - i)});
                i = j;
            } else if (c == '/') {
                if (regexPosition()) return "a regular expression";
                const size_t len = i + 1 < n && s_[i + 1] == '=' ? 2 : 1;
                tokens_.push_back({Kind::Punct, s_.substr(i, len)});
                i += len;
            } else if (c == '.') {
                tokens_.push_back({Kind::Punct, s_.substr(i, 1)});
                ++i;
            } else {
                const char* match = nullptr;
                for (const char* p : kPunctuators) {
                    const size_t len = std::strlen(p);
                    if (s_.compare(i, len, p) == 0) {
                        match = p;
                        break;
                    }
                }
                if (!match) return std::string("the character '") + c + "'";
                const size_t len = std::strlen(match);
                bool condition = false;
                if (*match == '(') {
                    const bool afterIf = !tokens_.empty() && tokens_.back().kind == Kind::Name &&
                                         among(tokens_.back().text, kStatementHeads);
                    parens_.push_back(afterIf);
                } else if (*match == ')') {
                    if (parens_.empty()) return "unbalanced parentheses";
                    condition = parens_.back();
                    parens_.pop_back();
                }
                tokens_.push_back({Kind::Punct, s_.substr(i, len), condition});
                i += len;
            }
        }
        return {};
    }

    std::string rules() const {
        for (size_t i = 0; i < tokens_.size(); ++i) {
            const Token& t = tokens_[i];
            const Token* before = i > 0 ? &tokens_[i - 1] : nullptr;
            const Token* after = i + 1 < tokens_.size() ? &tokens_[i + 1] : nullptr;
            const std::string text(t.text);
            if (t.kind == Kind::Punct) {
                if (t.text == "++" || t.text == "--") return "'" + text + "'";
                if (t.text == "=>" || t.text == "...") return "'" + text + "'";
                // Computed member access could name anything.
                if (t.text == "[" && before &&
                    (before->kind != Kind::Punct || before->text == ")" || before->text == "]"))
                    return "a computed member access";
                continue;
            }
            if (t.kind != Kind::Name) continue;
            if (among(t.text, kRefusedNames)) return "'" + text + "'";
            if (before && before->kind == Kind::Punct && before->text == ".") {
                if (!among(t.text, kProperties)) return "the property '" + text + "'";
                if (t.text == "length" && after && after->kind == Kind::Punct && assignment(after->text))
                    return "an assignment to a length";
            }
            // An accessor in an object literal is a function.
            if ((t.text == "get" || t.text == "set") && after && after->kind != Kind::Punct)
                return "an accessor";
            // An array whose length is a number can be as long as the number
            // says: Array is taken only when called at once with strings or nothing.
            if (t.text == "Array" && (!after || after->text != "(" || i + 2 >= tokens_.size() ||
                                      (tokens_[i + 2].kind != Kind::String && tokens_[i + 2].text != ")")))
                return "an array of a computed length";
        }
        return {};
    }

    std::string_view s_;
    std::vector<Token> tokens_;
    std::vector<bool> parens_;  // open parentheses: whether each follows a statement head
};

}  // namespace

std::string ScriptRefusal(std::string_view source) {
    return Checker(source).Run();
}

}  // namespace Orvane::PDF::Pdfium
