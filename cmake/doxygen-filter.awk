# Doxygen input filter: the public headers are commented with plain // lines,
# which this turns into documentation comments on the fly. A file's leading
# comment documents the file; a comment block above a declaration documents
# it; a comment after a member on its line documents that member. Indented
# comment lines (code examples) become code blocks.
BEGIN { head = 1 }
head && /^\/\// {
    if (!filedoc) { print "/// \\file"; filedoc = 1 }
    sub(/^\/\/  /, "//      ")
    sub(/^\/\//, "///")
    print
    next
}
head && !/^[ \t]*$/ && !/^#pragma/ { head = 0 }
{
    if ($0 ~ /^[ \t]*\/\//) {
        sub(/\/\/  /, "//      ")
        sub(/\/\//, "///")
    }
    else if ($0 ~ /[;,{][ \t]*\/\/ /) sub(/[ \t]*\/\/ /, " ///< ")
    print
}
