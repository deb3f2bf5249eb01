// outline; the document information and page labels of info; pages named by
// label; render --region.

#include "Reading.h"

#include <QImage>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "Pictures.h"

namespace QuirelleCli {

using namespace Orvane::PDF;
using json = nlohmann::ordered_json;

namespace {

std::vector<std::string> Labels(Quirelle& service, int64 id) {
    return service.GetPageLabels(id).get();
}

// Whether every label is the plain page number.
bool PlainNumbers(const std::vector<std::string>& labels) {
    for (size_t i = 0; i < labels.size(); ++i) {
        if (labels[i] != std::to_string(i + 1)) return false;
    }
    return true;
}

json EntryJson(const OutlineEntry& entry, const std::vector<std::string>& labels) {
    const bool onPage = entry.pageIndex >= 0 && static_cast<size_t>(entry.pageIndex) < labels.size();
    json out = {{"title", entry.title},
                {"page", onPage ? json(entry.pageIndex + 1) : json(nullptr)},
                {"label", onPage ? json(labels[entry.pageIndex]) : json(nullptr)},
                {"x", entry.x},
                {"y", entry.y},
                {"zoom", entry.zoom},
                {"uri", entry.uri.empty() ? json(nullptr) : json(entry.uri)},
                {"open", entry.open},
                {"children", json::array()}};
    for (const OutlineEntry& child : entry.children) out["children"].push_back(EntryJson(child, labels));
    return out;
}

void PrintEntries(const std::vector<OutlineEntry>& entries, const std::vector<std::string>& labels, bool plain,
                  int level) {
    for (const OutlineEntry& entry : entries) {
        std::cout << std::string(2 * level, ' ') << entry.title;
        if (entry.pageIndex >= 0 && static_cast<size_t>(entry.pageIndex) < labels.size()) {
            std::cout << "  " << (plain ? "" : labels[entry.pageIndex] + " ") << "(page " << entry.pageIndex + 1 << ")";
        } else if (!entry.uri.empty()) {
            std::cout << "  " << entry.uri;
        }
        std::cout << "\n";
        PrintEntries(entry.children, labels, plain, level + 1);
    }
}

// "2024-01-31T23:59:59-05:30", or the raw string when it cannot be read.
json DateJson(const DocumentDate& date) {
    if (!date.valid) return date.raw.empty() ? json(nullptr) : json(date.raw);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", date.year, date.month, date.day, date.hour,
                  date.minute, date.second);
    std::string iso = text;
    if (date.hasOffset) {
        if (date.offsetMinutes == 0) {
            iso += "Z";
        } else {
            const int minutes = std::abs(date.offsetMinutes);
            std::snprintf(text, sizeof text, "%c%02d:%02d", date.offsetMinutes < 0 ? '-' : '+', minutes / 60,
                          minutes % 60);
            iso += text;
        }
    }
    return iso;
}

// Labels written as a list, long runs cut short.
std::string LabelSummary(const std::vector<std::string>& labels) {
    constexpr size_t kShown = 8;
    std::string text;
    for (size_t i = 0; i < labels.size(); ++i) {
        if (labels.size() > 2 * kShown && i == kShown) {
            text += ", ...";
            i = labels.size() - kShown;
        }
        text += (text.empty() ? "" : ", ") + labels[i];
    }
    return text;
}

}  // namespace

int RunOutline(Session& session, const OutlineOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    auto outline = service.GetOutline(id);
    const std::vector<std::string> labels = Labels(service, id);
    const std::vector<OutlineEntry> entries = outline.get();
    if (options.json) {
        json out = json::array();
        for (const OutlineEntry& entry : entries) out.push_back(EntryJson(entry, labels));
        std::cout << out.dump(2) << "\n";
        return 0;
    }
    if (entries.empty()) {
        std::cout << options.file << ": no outline\n";
        return 0;
    }
    PrintEntries(entries, labels, PlainNumbers(labels), 0);
    return 0;
}

void AddDocumentInformation(Quirelle& service, int64 id, json& out) {
    auto labels = service.GetPageLabels(id);
    const DocumentInformation info = service.GetDocumentInformation(id).get();
    auto text = [](const std::string& value) { return value.empty() ? json(nullptr) : json(value); };
    out["title"] = text(info.title);
    out["author"] = text(info.author);
    out["subject"] = text(info.subject);
    out["keywords"] = text(info.keywords);
    out["creator"] = text(info.creator);
    out["producer"] = text(info.producer);
    out["created"] = DateJson(info.created);
    out["modified"] = DateJson(info.modified);
    out["version"] = info.version;
    out["encryption"] = text(info.encryption);
    out["pageLayout"] = text(info.pageLayout);
    out["pageMode"] = text(info.pageMode);
    out["tagged"] = info.tagged;
    out["hasForm"] = info.hasForm;
    out["hasAttachments"] = info.hasAttachments;
    out["hasLayers"] = info.hasLayers;
    out["pageLabels"] = labels.get();
}

void PrintDocumentInformation(Quirelle& service, int64 id, std::ostream& out) {
    auto labelsFuture = service.GetPageLabels(id);
    const DocumentInformation info = service.GetDocumentInformation(id).get();
    const std::vector<std::string> labels = labelsFuture.get();
    auto line = [&out](const char* name, const std::string& value) {
        if (!value.empty()) out << name << std::string(13 - std::string(name).size(), ' ') << value << "\n";
    };
    line("title:", info.title);
    line("author:", info.author);
    line("subject:", info.subject);
    line("keywords:", info.keywords);
    line("creator:", info.creator);
    line("producer:", info.producer);
    line("created:", DateJson(info.created).is_string() ? DateJson(info.created).get<std::string>() : "");
    line("modified:", DateJson(info.modified).is_string() ? DateJson(info.modified).get<std::string>() : "");
    line("version:", "PDF " + info.version);
    line("encryption:", info.encryption);
    std::vector<std::string> features;
    if (info.tagged) features.push_back("tagged");
    if (info.hasForm) features.push_back("form");
    if (info.hasAttachments) features.push_back("attachments");
    if (info.hasLayers) features.push_back("layers");
    std::string joined;
    for (const std::string& feature : features) joined += (joined.empty() ? "" : ", ") + feature;
    line("features:", joined);
    line("page layout:", info.pageLayout);
    line("page mode:", info.pageMode);
    if (!PlainNumbers(labels)) line("page labels:", LabelSummary(labels));
}

namespace {
bool everyPageAsLabel = false;

// Written as page numbers: digits, ranges and z only.
bool NumbersOnly(const std::string& item) {
    return !item.empty() && item.find_first_not_of("0123456789-z ") == std::string::npos;
}
}  // namespace

void ReadEveryPageAsLabel(bool on) {
    everyPageAsLabel = on;
}

std::string PagesByLabel(Session& session, int64 id, const std::string& pages) {
    if (!everyPageAsLabel && pages.find("label:") == std::string::npos) return pages;
    auto page = [&](const std::string& label) {
        const int index = session.Service().FindPageByLabel(id, label).get();
        if (index < 0) throw UsageError("no page is labelled \"" + label + "\"");
        return std::to_string(index + 1);
    };
    std::string resolved;
    std::stringstream items(pages);
    for (std::string item; std::getline(items, item, ',');) {
        const bool prefixed = item.rfind("label:", 0) == 0;
        if (!prefixed && everyPageAsLabel && item.find("..") == std::string::npos && NumbersOnly(item) &&
            session.Service().FindPageByLabel(id, item).get() < 0) {
            // "1-z", "3-5": no label reads so; page numbers as ever.
        } else if (prefixed || everyPageAsLabel) {
            if (prefixed) item = item.substr(6);
            const size_t dots = item.find("..");
            item =
                dots == std::string::npos ? page(item) : page(item.substr(0, dots)) + "-" + page(item.substr(dots + 2));
        }
        resolved += (resolved.empty() ? "" : ",") + item;
    }
    return resolved;
}

int RunRenderRegion(Session& session, const RenderOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const std::vector<unsigned> pages = ParsePages(PagesByLabel(session, id, options.pages), session.PageCount(id));
    if (pages.size() != 1) throw UsageError("--region draws one page: give one PAGE");
    double sides[4];
    char end = 0;
    if (std::sscanf(options.region.c_str(), "%lf,%lf,%lf,%lf%c", &sides[0], &sides[1], &sides[2], &sides[3], &end) !=
        4) {
        throw UsageError("--region " + options.region + ": write LEFT,BOTTOM,RIGHT,TOP in points");
    }
    const Rect region{sides[0], sides[3], sides[2], sides[1]};
    const double dpi = options.dpi > 0 ? options.dpi : 96;
    QImage tile;
    try {
        tile = service.GenerateTile(id, pages[0], region, dpi / 72, IPageInfoObserver::DefaultView).get();
    } catch (const std::invalid_argument& e) {
        throw UsageError(std::string("--region: ") + e.what());
    }
    fs::path out = options.out;
    if (out.extension().empty()) out += "." + options.format;
    RefuseToOverwrite(out, options.file, "render to another --out");
    CheckWritable(out);
    // Null when the time budget or the memory limit ran out, or the engine
    // failed on part of the region: never a partial picture.
    if (tile.isNull()) {
        throw Failure(options.file + ": page " + std::to_string(pages[0] + 1) +
                      ": the region could not be drawn completely (time budget, memory limit or damage); no picture "
                      "written");
    }
    PictureOptions picture;
    picture.jpeg = out.extension() == ".jpg" || out.extension() == ".jpeg";
    picture.pngLevel = options.pngLevel;
    RemovePartialPictureOnSignal();
    SavePicture(tile, out, picture);
    std::cout << out.string() << ": page " << pages[0] + 1 << ", " << tile.width() << " x " << tile.height()
              << " pixels\n";
    return 0;
}

}  // namespace QuirelleCli
