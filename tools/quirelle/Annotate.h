#pragma once

// Annotations on the command line: list them, highlight every match of a
// text, add a note, ink, a shape, a line or free text, delete them.

#include <string>
#include <vector>

#include "Cli.h"

namespace QuirelleCli {

struct AnnotationsOptions {
    std::string file;
    std::string pages = "1-z";
    bool json = false;
};

struct HighlightOptions {
    std::string file;
    std::string pages;
    std::string text;
    std::string color = "#FFFF00";
    std::string author;
    Destination destination;
};

struct AnnotateOptions {
    std::string file;
    std::string page;
    std::string kind;  // note, ink, square, circle, line, arrow, freetext
    std::string at;    // X,Y
    std::string rect;  // LEFT,BOTTOM,RIGHT,TOP
    std::string from;
    std::string to;
    std::vector<std::string> strokes;  // X,Y,X,Y,...
    std::string text;
    std::string color;
    std::string fill;
    std::string author;
    float opacity = 1.0f;
    float width = 0.0f;
    float fontSize = 12.0f;
    Destination destination;
};

struct DeleteAnnotationsOptions {
    std::string file;
    std::string pages;
    std::string type;  // a subtype name or number; empty: every kind but widgets
    Destination destination;
};

int RunAnnotations(Session& session, const AnnotationsOptions& options, const std::string& password);
int RunHighlight(Session& session, const HighlightOptions& options, const std::string& password);
int RunAnnotate(Session& session, const AnnotateOptions& options, const std::string& password);
int RunDeleteAnnotations(Session& session, const DeleteAnnotationsOptions& options, const std::string& password);

}  // namespace QuirelleCli
