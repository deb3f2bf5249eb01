// Subcommands that read a document: info, text and search.

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Reading.h"

namespace QuirelleCli {

using namespace Orvane::PDF;
using json = nlohmann::ordered_json;

namespace {

json RectJson(const Rect& rect) {
    return {{"left", rect.left}, {"top", rect.top}, {"right", rect.right}, {"bottom", rect.bottom}};
}

// A run of consecutive pages of one size (as displayed) and rotation.
struct SizeGroup {
    unsigned first = 0, last = 0;  // page indices
    Size size;
    int rotation = 0;  // degrees clockwise
};

std::string Span(const SizeGroup& group) {
    const std::string first = std::to_string(group.first + 1);
    return group.first == group.last ? first : first + "-" + std::to_string(group.last + 1);
}

std::string PaperName(const Size& size) {
    if (const Paper* paper = FindPaper(size)) return paper->name;
    char text[64];
    std::snprintf(text, sizeof text, "%g x %g pt", std::round(size.width * 10) / 10, std::round(size.height * 10) / 10);
    return text;
}

const char* Orientation(const Size& size) {
    return size.width > size.height ? "landscape" : size.width < size.height ? "portrait" : "square";
}

std::vector<SizeGroup> GroupPageSizes(Quirelle& service, int64 id, unsigned pageCount) {
    std::vector<unsigned> all(pageCount);
    for (unsigned page = 0; page < pageCount; ++page) all[page] = page;
    std::vector<SizeGroup> groups;
    Pipelined(
        all, 64, [&](unsigned page) { return service.GetPageInfo(id, page); },
        [&](unsigned page, std::future<IPDFProvider::PageInfo>& future) {
            const IPDFProvider::PageInfo info = future.get();
            const int rotation = 90 * static_cast<int>(info.rotation);
            if (!groups.empty() && PaperName(groups.back().size) == PaperName(info.size) &&
                groups.back().rotation == rotation && Orientation(groups.back().size) == Orientation(info.size)) {
                groups.back().last = page;
            } else {
                groups.push_back({page, page, info.size, rotation});
            }
        });
    return groups;
}

struct LinkRow {
    unsigned page = 0;
    Rect rect;
    int type = ILinkAnnotation::Other;
    LinkDestination destination;
    std::string uri;
};

// The links of every page, one worker task per page so that no task holds
// the worker for long.
std::vector<LinkRow> ListLinks(Quirelle& service, int64 id, unsigned pageCount) {
    std::vector<std::vector<LinkRow>> perPage(pageCount);
    std::vector<std::future<void>> done;
    for (unsigned page = 0; page < pageCount; ++page) {
        std::packaged_task<void(std::shared_ptr<IDocument>&)> task(
            [&rows = perPage[page], page](std::shared_ptr<IDocument>& document) {
                if (!document) return;
                for (const auto& annotation : document->GetPage(page)->GetAnnotations(IAnnotation::Link)) {
                    LinkRow row{page, annotation->GetRect()};
                    if (auto link = std::dynamic_pointer_cast<ILinkAnnotation>(annotation)) {
                        row.type = link->GetLinkType();
                        if (row.type == ILinkAnnotation::Destination) row.destination = link->GetDestination();
                        if (row.type == ILinkAnnotation::Uri) row.uri = link->GetUri();
                    }
                    rows.push_back(row);
                }
            });
        done.push_back(task.get_future());
        service.ExecuteWithDocument(id, std::move(task));
    }
    std::vector<LinkRow> links;
    for (unsigned page = 0; page < pageCount; ++page) {
        done[page].get();
        links.insert(links.end(), perPage[page].begin(), perPage[page].end());
    }
    return links;
}

struct Permission {
    const char* key;
    const char* words;
    bool (Quirelle::*forbidden)(const int64&);
};
constexpr Permission kPermissions[] = {
    {"print", "print", &Quirelle::IsPrintProtected},
    {"editContent", "edit content", &Quirelle::IsEditContentProtected},
    {"copy", "copy text and graphics", &Quirelle::IsCopyTextAndGraphicsProtected},
    {"editPages", "edit pages", &Quirelle::IsEditPagesProtected},
    {"extractPages", "extract pages", &Quirelle::IsExtractingPagesProtected},
};

std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

}  // namespace

int RunInfo(Session& session, const InfoOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const unsigned pageCount = session.PageCount(id);
    const std::vector<SizeGroup> groups = GroupPageSizes(service, id, pageCount);
    const std::vector<LinkRow> links = options.links ? ListLinks(service, id, pageCount) : std::vector<LinkRow>{};
    const bool lowResolution = service.IsPrintLowResolution(id);

    if (options.json) {
        json out = {{"file", options.file}, {"pages", pageCount}, {"encrypted", service.IsProtected(id)}};
        for (const Permission& permission : kPermissions) {
            out["permissions"][permission.key] = !(service.*permission.forbidden)(id);
        }
        out["permissions"]["printLowResolutionOnly"] = lowResolution;
        AddDocumentInformation(service, id, out);
        out["pageSizes"] = json::array();
        for (const SizeGroup& group : groups) {
            out["pageSizes"].push_back({{"pages", Span(group)},
                                        {"first", group.first + 1},
                                        {"last", group.last + 1},
                                        {"width", group.size.width},
                                        {"height", group.size.height},
                                        {"paper", PaperName(group.size)},
                                        {"orientation", Orientation(group.size)},
                                        {"rotation", group.rotation}});
        }
        if (options.links) {
            out["links"] = json::array();
            for (const LinkRow& link : links) {
                json row = {{"page", link.page + 1}, {"rect", RectJson(link.rect)}};
                if (link.type == ILinkAnnotation::Uri) row["uri"] = link.uri;
                if (link.type == ILinkAnnotation::Destination) {
                    row["target"] = {{"page", link.destination.pageIndex + 1},
                                     {"x", link.destination.x},
                                     {"y", link.destination.y},
                                     {"zoom", link.destination.zoom}};
                }
                out["links"].push_back(row);
            }
        }
        std::cout << out.dump(2) << "\n";
        return 0;
    }

    std::cout << "file:        " << options.file << "\n";
    PrintDocumentInformation(service, id, std::cout);
    std::cout << "pages:       " << pageCount << "\n";
    for (size_t i = 0; i < groups.size(); ++i) {
        const SizeGroup& group = groups[i];
        std::cout << (i == 0 ? "page sizes:  " : "             ") << Span(group) << ": " << PaperName(group.size) << " "
                  << Orientation(group.size);
        if (group.rotation) std::cout << ", rotated " << group.rotation;
        std::cout << "\n";
    }
    std::vector<std::string> allowed, forbidden;
    for (const Permission& permission : kPermissions) {
        const bool isForbidden = (service.*permission.forbidden)(id);
        std::string words = permission.words;
        if (!isForbidden && lowResolution && permission.forbidden == &Quirelle::IsPrintProtected)
            words += " (low resolution only)";
        (isForbidden ? forbidden : allowed).push_back(words);
    }
    std::cout << "encrypted:   " << (service.IsProtected(id) ? "yes" : "no") << "\n"
              << "permissions: ";
    if (forbidden.empty()) {
        std::cout << "everything allowed\n";
    } else if (allowed.empty()) {
        std::cout << "nothing allowed (" << Join(forbidden) << ")\n";
    } else {
        std::cout << "allowed: " << Join(allowed) << "; not allowed: " << Join(forbidden) << "\n";
    }
    if (options.links) {
        std::cout << "links:       " << (links.empty() ? "none" : std::to_string(links.size())) << "\n";
        for (const LinkRow& link : links) {
            std::cout << "  page " << link.page + 1 << " " << FormatRect(link.rect) << " -> ";
            if (link.type == ILinkAnnotation::Uri) {
                std::cout << link.uri;
            } else if (link.type == ILinkAnnotation::Destination && link.destination.pageIndex >= 0) {
                std::cout << "page " << link.destination.pageIndex + 1 << " at (" << link.destination.x << ", "
                          << link.destination.y << ")";
            } else {
                std::cout << "(no target)";
            }
            std::cout << "\n";
        }
    }
    return 0;
}

int RunText(Session& session, const TextOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const std::vector<unsigned> pages = ParsePages(PagesByLabel(session, id, options.pages), session.PageCount(id));
    int status = 0;
    bool first = true;
    Pipelined(
        pages, 4, [&](unsigned page) { return service.GetPageTextObject(id, page); },
        [&](unsigned page, std::future<std::shared_ptr<ITextObject>>& future) {
            // Pages are separated by a form feed.
            if (!first) std::cout << '\f';
            first = false;
            try {
                std::cout << ToUtf8(future.get()->GetText());
            } catch (const std::exception& e) {
                std::cout.flush();
                std::cerr << "quirelle: " << options.file << ": page " << page + 1
                          << ": cannot read its text: " << e.what() << "\n";
                status = 1;
            }
        });
    return status;
}

namespace {

// Prints the hits of each searched page as it comes; called on the worker.
class HitPrinter {
public:
    HitPrinter(std::string file, bool json, Progress& progress)
        : file_(std::move(file)), json_(json), progress_(progress) {}

    void Page(unsigned page, const std::vector<SearchResultInfo>& hits, const ITextObject& text) {
        progress_.Step();
        if (hits.empty()) return;
        progress_.Clear();
        const std::wstring pageText = text.GetText();
        json rows = json::array();
        if (!json_)
            std::cout << "page " << page + 1 << ": " << hits.size() << (hits.size() == 1 ? " hit\n" : " hits\n");
        for (const SearchResultInfo& hit : hits) {
            const std::string matched = ToUtf8(pageText.substr(hit.charIndex, hit.charCount));
            const std::vector<Rect> rects = text.GetTextRects(hit.charIndex, hit.charCount);
            if (json_) {
                json row = {{"text", matched}, {"charIndex", hit.charIndex}, {"rects", json::array()}};
                for (const Rect& rect : rects) row["rects"].push_back(RectJson(rect));
                rows.push_back(row);
                continue;
            }
            std::cout << "  " << json(matched).dump() << " ";
            for (const Rect& rect : rects) std::cout << " " << FormatRect(rect);
            std::cout << "\n";
        }
        if (json_) std::cout << json{{"page", page + 1}, {"hits", rows}}.dump() << "\n";
        std::cout.flush();
        hits_ += hits.size();
        ++pagesWithHits_;
    }

    const std::string& File() const { return file_; }
    size_t Hits() const { return hits_; }

    void Summary(unsigned searched) const {
        if (json_) {
            std::cout << json{{"hits", hits_}, {"pagesWithHits", pagesWithHits_}, {"pagesSearched", searched}}.dump()
                      << "\n";
        } else {
            std::cout << hits_ << (hits_ == 1 ? " hit" : " hits") << " on " << pagesWithHits_ << " of " << searched
                      << " page(s)\n";
        }
    }

private:
    std::string file_;
    bool json_;
    Progress& progress_;
    size_t hits_ = 0;
    unsigned pagesWithHits_ = 0;
};

// One SearchInDocument run, shared with its callback. The callback holds the
// mutex while it reports, and does nothing once the run is closed, so the
// printer it uses may go as soon as the run is closed.
struct SearchRun {
    std::mutex mutex;
    std::condition_variable advanced;
    unsigned wanted = 0;
    unsigned seen = 0;
    bool closed = false;
};

}  // namespace

// The service searches one page per worker pass, wrapping around from the
// start page, and calls back after each page. A page whose search fails ends
// the service's search without a word; a stall is noticed by waiting for
// three worker passes (three small requests one after another) without a
// callback, since a live search makes a step in every pass. The search then
// goes on from the page after the one that failed.
int RunSearch(Session& session, const SearchOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const unsigned pageCount = session.PageCount(id);
    if (options.from < 1 || options.from > pageCount) {
        throw UsageError("--from " + std::to_string(options.from) + " is out of range: the document has " +
                         std::to_string(pageCount) + " page(s)");
    }
    const std::wstring needle = FromUtf8(options.text);
    if (needle.empty()) throw UsageError("the text to search for is empty");
    const int flags = (options.matchCase ? ITextObject::MatchCase : 0) | (options.words ? ITextObject::WholeWords : 0);

    Progress progress("searching", pageCount);
    HitPrinter printer(options.file, options.json, progress);
    unsigned start = options.from - 1, remaining = pageCount, failed = 0;
    while (remaining > 0) {
        auto run = std::make_shared<SearchRun>();
        run->wanted = remaining;
        auto callback = [run, &printer, needle, flags](unsigned page, const std::vector<SearchResultInfo>& results,
                                                       const std::shared_ptr<ITextObject>& text) {
            std::lock_guard<std::mutex> lock(run->mutex);
            if (run->closed || run->seen >= run->wanted) return;
            try {
                // The service matches with no flags; other flags need a second look at the page's text.
                if (text) printer.Page(page, flags ? text->FindText(needle, flags) : results, *text);
            } catch (const std::exception& e) {
                std::cerr << "quirelle: " << printer.File() << ": page " << page + 1 << ": " << e.what() << "\n";
            }
            ++run->seen;
            run->advanced.notify_all();
        };
        const int64 searchId = service.SearchInDocument(id, start, needle, callback);
        std::unique_lock<std::mutex> lock(run->mutex);
        bool stalled = false;
        while (run->seen < run->wanted && !stalled) {
            const unsigned before = run->seen;
            if (run->advanced.wait_for(lock, std::chrono::seconds(1), [&] { return run->seen != before; })) continue;
            lock.unlock();
            for (int pass = 0; pass < 3; ++pass) {
                try {
                    service.GetPageInfo(id, 0).get();
                } catch (const std::exception&) {
                    // Still a pass of the worker.
                }
            }
            lock.lock();
            stalled = run->seen == before;
        }
        run->closed = true;
        const unsigned seen = run->seen;
        lock.unlock();
        service.StopSearch(searchId);
        if (!stalled) break;
        const unsigned page = (start + seen) % pageCount;
        progress.Clear();
        std::cerr << "quirelle: " << options.file << ": page " << page + 1 << " could not be searched\n";
        progress.Step();
        ++failed;
        remaining -= seen + 1;
        start = (page + 1) % pageCount;
    }
    progress.Clear();
    printer.Summary(pageCount - failed);
    // As grep: 0 when something was found.
    return failed || printer.Hits() == 0 ? 1 : 0;
}

}  // namespace QuirelleCli
