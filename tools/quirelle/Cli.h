#pragma once

// The quirelle command line: shared pieces of its subcommands. Everything here
// goes through the library's public interface only, as any application would.
//
// Errors are exceptions carrying the one line the user sees and the exit
// status: UsageError (2) for what the command line itself got wrong, Failure
// (1) for files and documents that let the command down.

#include <Quirelle>
#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Pictures.h"

namespace QuirelleCli {

using Orvane::int64;
using Orvane::PDF::Quirelle;
namespace fs = std::filesystem;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Pages as people write them: "1-3,7,10-z", counted from 1, z the last page
// (commands first turn pages named by label into numbers, see PagesByLabel);
// a range may run backwards ("z-1"). Answers page indices (from 0) in the
// order written, duplicates kept. Throws UsageError for bad syntax or a page
// outside 1..pageCount.
std::vector<unsigned> ParsePages(const std::string& text, unsigned pageCount);
// The same, sorted and without duplicates.
std::vector<unsigned> ParsePageSet(const std::string& text, unsigned pageCount);

// A bar on stderr while long work goes on, only when stderr is a terminal.
// Step may be called from any one thread at a time.
class Progress {
public:
    Progress(std::string label, unsigned total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void Step(unsigned count = 1);
    // Wipes the bar before something else is written to the terminal; the
    // next Step draws it again.
    void Clear();

private:
    void Draw();
    std::string label_;
    unsigned total_;
    unsigned done_ = 0;
    bool shown_;
    std::chrono::steady_clock::time_point drawn_;
};

// Where an edited document goes: a new file, or back over the one it came from.
struct Destination {
    std::string out;
    bool inPlace = false;
    bool decrypt = false;  // the new file without encryption (owner only)
    // Throws UsageError unless exactly one of out and inPlace was given, or
    // for decrypt in place.
    void Check() const;
};

// The service with the documents a command opened.
class Session {
public:
    Session();
    // Opens a PDF or image file with at least one page; Failure with a
    // one-line reason otherwise.
    int64 Open(const fs::path& path, const std::string& password);
    // The file last opened: the one the command is working on, which an
    // error from the library is about.
    const std::string& CurrentFile() const { return current_; }
    unsigned PageCount(int64 id);
    // Throws Failure when the document's permissions forbid the work.
    void RequireEditPages(int64 id, const fs::path& path);
    void RequireExtractPages(int64 id, const fs::path& path);
    // Writes the document as the destination says, atomically.
    void Save(int64 id, const Destination& destination);
    // Writes a document to a new file, atomically, encrypted as the document
    // is unless decrypt (which needs the owner password).
    void SaveAs(int64 id, const fs::path& out, bool decrypt = false);
    Quirelle& Service() { return *service_; }

private:
    std::unique_ptr<Quirelle> service_;
    std::string current_;
};

// Throws Failure unless a file could be created at path (its directory exists
// and may be written), so that a long job fails before it starts.
void CheckWritable(const fs::path& path);

// Throws UsageError when out is the file input (by any name: links are
// followed), so that no command writes over what it reads; hint says what to
// do instead.
void RefuseToOverwrite(const fs::path& out, const fs::path& input, const std::string& hint);

// Asks make(page) for up to depth pages ahead of use(page, future), so that
// the worker keeps busy while the caller handles the page before.
template <class Make, class Use>
void Pipelined(const std::vector<unsigned>& pages, size_t depth, Make make, Use use) {
    using Future = decltype(make(0u));
    std::deque<std::pair<unsigned, Future>> queued;
    size_t next = 0;
    while (next < pages.size() || !queued.empty()) {
        for (; next < pages.size() && queued.size() < depth; ++next)
            queued.emplace_back(pages[next], make(pages[next]));
        std::pair<unsigned, Future> front = std::move(queued.front());
        queued.pop_front();
        use(front.first, front.second);
    }
}

// The paper sizes known by name, in points, short side first.
struct Paper {
    const char* name;
    double shortSide, longSide;
};
extern const std::vector<Paper> kPapers;
// The paper whose name is name (any case), or whose size is size within 2
// points either way; nullptr if none.
const Paper* FindPaper(const std::string& name);
const Paper* FindPaper(const Orvane::PDF::Size& size);

// The papers' names, "A3, A4, ..., Executive".
std::string PaperNames();
// The image files' extensions, ".png .jpg ... .tiff".
std::string ImageExtensions();

// "[left top right bottom]" in points, one decimal.
std::string FormatRect(const Orvane::PDF::Rect& rect);

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

// The process-wide engine limits from --time-budget and --memory-limit (0
// keeps the library's value).
void ApplyEngineLimits(unsigned timeBudgetMs, unsigned memoryLimitMb);

// Options of the subcommands, filled by the command line parser.
struct InfoOptions {
    std::string file;
    bool links = false;
    bool json = false;
};
struct RenderOptions {
    std::string file;
    std::string pages = "1-z";
    double dpi = 0;
    int width = 0;
    int height = 0;
    std::string out;
    std::string format = "png";
    int pngLevel = kDefaultPngLevel;
    bool keepGoing = false;
    std::string region;  // LEFT,BOTTOM,RIGHT,TOP in points: one tile (Reading.cpp)
};
struct TextOptions {
    std::string file;
    std::string pages = "1-z";
};
struct SearchOptions {
    std::string file;
    std::string text;
    unsigned from = 1;
    bool matchCase = false;
    bool words = false;
    bool json = false;
};
struct ExportOptions {
    std::string file;
    std::string pages;
    std::string out;
};
struct MergeOptions {
    std::string out;
    std::vector<std::string> inputs;  // FILE or FILE:PAGES
};
struct PageEditOptions {  // rotate, delete, move, blank
    std::string file;
    std::string pages;
    int by = 90;
    unsigned to = 0;
    unsigned at = 0;
    std::string size;
    Destination destination;
};
struct ImagesOptions {
    std::string out;
    std::vector<std::string> images;
};

struct FieldsOptions {
    std::string file;
    bool json = false;
};
struct FillOptions {
    std::string file;
    std::vector<std::string> assignments;  // NAME=VALUE
    std::string from;                      // values.json
    Destination destination;
};
struct FlattenOptions {
    std::string file;
    Destination destination;
};

int RunInfo(Session& session, const InfoOptions& options, const std::string& password);
int RunRender(Session& session, const RenderOptions& options, const std::string& password);
int RunText(Session& session, const TextOptions& options, const std::string& password);
int RunSearch(Session& session, const SearchOptions& options, const std::string& password);
int RunExport(Session& session, const ExportOptions& options, const std::string& password);
int RunMerge(Session& session, const MergeOptions& options, const std::string& password);
int RunRotate(Session& session, const PageEditOptions& options, const std::string& password);
int RunDelete(Session& session, const PageEditOptions& options, const std::string& password);
int RunMove(Session& session, const PageEditOptions& options, const std::string& password);
int RunBlank(Session& session, const PageEditOptions& options, const std::string& password);
int RunImagesToPdf(Session& session, const ImagesOptions& options);
int RunFields(Session& session, const FieldsOptions& options, const std::string& password);
int RunFill(Session& session, const FillOptions& options, const std::string& password);
int RunFlatten(Session& session, const FlattenOptions& options, const std::string& password);

}  // namespace QuirelleCli
