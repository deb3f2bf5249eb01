#pragma once

// What the comparison programs share: each wraps one PDF library in a
// Backend and hands it to CompareMain, which renders the pages and prints
// one line of figures that bench/compare.sh adds up.
//
//   <program> render DPI MAX_PAGES FILE...
//       renders pages 1 to MAX_PAGES of every file (fewer where a file has
//       fewer) at DPI, each page scaled to fill a picture of its size at DPI,
//       one after the other on one thread, and prints
//       "pages=N render_s=S open_s=S pixels=N ink=N failed=N".
//   <program> export OUT_DIR FILE...      (backends that write PDF files)
//       writes every odd page of every file to OUT_DIR/<name>.pdf and prints
//       "files=N pages=N export_s=S bytes=N failed=N"; export_s counts opening
//       the file too, as a command that exports a selection must.

#include <QImage>
#include <QSize>
#include <QSizeF>
#include <string>
#include <vector>

namespace QuirelleCompare {

class Backend {
public:
    virtual ~Backend() = default;
    // Opens a file; answers its page count, or -1 when it cannot be opened.
    virtual int Open(const std::string& path) = 0;
    // The page's size in points as displayed (its rotation applied).
    virtual QSizeF PageSize(int page) = 0;
    // The page scaled to fill size; a null picture on failure.
    virtual QImage Render(int page, QSize size) = 0;
    virtual void Close() = 0;
    // Writes the given pages (from 0) of the open file to a new file.
    virtual bool Export(const std::vector<int>& pages, const std::string& out);
};

int CompareMain(int argc, char** argv, Backend& backend);

}  // namespace QuirelleCompare
