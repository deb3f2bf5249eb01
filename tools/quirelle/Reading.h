#pragma once

// What the command line shows beyond pages: the outline, the document's
// information and page labels, pages named by label, one region of a page.

#include <nlohmann/json.hpp>
#include <ostream>

#include "Cli.h"

namespace QuirelleCli {

struct OutlineOptions {
    std::string file;
    bool json = false;
};

int RunOutline(Session& session, const OutlineOptions& options, const std::string& password);

// The document's information and page labels for `info`: JSON keys, or
// lines of text.
void AddDocumentInformation(Quirelle& service, int64 id, nlohmann::ordered_json& out);
void PrintDocumentInformation(Quirelle& service, int64 id, std::ostream& out);

// Pages as written, with items "label:L" (the page labelled L) and
// "label:L..M" (labels L to M) turned into page numbers. With
// --pages-by-label (ReadEveryPageAsLabel) every item is read so: "iv",
// "iv..A-3"; an item no label names keeps its meaning as page numbers
// ("7", "1-z"), as FindPageByLabel answers.
std::string PagesByLabel(Session& session, int64 id, const std::string& pages);
void ReadEveryPageAsLabel(bool on);

// render --region: one tile of one page, written to --out (a file).
int RunRenderRegion(Session& session, const RenderOptions& options, const std::string& password);

}  // namespace QuirelleCli
