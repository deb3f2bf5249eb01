// Page ranges, the progress bar, opening and saving documents, and the
// engine limits: what every subcommand shares.

#include <strings.h>
#include <unistd.h>

#include <QString>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>

#include "Cli.h"

namespace QuirelleCli {

namespace {

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// One page number of a range: digits or z (the last page).
unsigned ParsePageNumber(const std::string& word, const std::string& whole, unsigned pageCount) {
    const std::string bad = "bad page range \"" + whole + "\": write pages like 1-3,7,10-z (z is the last page)";
    if (word == "z" || word == "Z") return pageCount;
    if (word.empty() || word.size() > 9 || !std::all_of(word.begin(), word.end(), ::isdigit)) throw UsageError(bad);
    const unsigned number = static_cast<unsigned>(std::stoul(word));
    if (number < 1 || number > pageCount) {
        throw UsageError("page " + word + " is out of range: the document has " + std::to_string(pageCount) +
                         " page(s)");
    }
    return number;
}

}  // namespace

std::vector<unsigned> ParsePages(const std::string& text, unsigned pageCount) {
    std::vector<unsigned> pages;
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t comma = std::min(text.find(',', begin), text.size());
        const std::string part = Trim(text.substr(begin, comma - begin));
        const size_t dash = part.find('-');
        const unsigned first = ParsePageNumber(Trim(part.substr(0, dash)), text, pageCount);
        const unsigned last =
            dash == std::string::npos ? first : ParsePageNumber(Trim(part.substr(dash + 1)), text, pageCount);
        for (long page = first;; page += first <= last ? 1 : -1) {
            pages.push_back(static_cast<unsigned>(page - 1));
            if (page == static_cast<long>(last)) break;
        }
        begin = comma + 1;
    }
    return pages;
}

std::vector<unsigned> ParsePageSet(const std::string& text, unsigned pageCount) {
    const std::vector<unsigned> pages = ParsePages(text, pageCount);
    const std::set<unsigned> unique(pages.begin(), pages.end());
    return {unique.begin(), unique.end()};
}

Progress::Progress(std::string label, unsigned total)
    : label_(std::move(label)), total_(total), shown_(total > 1 && isatty(STDERR_FILENO)) {}

Progress::~Progress() {
    Clear();
}

void Progress::Step(unsigned count) {
    done_ += count;
    Draw();
}

void Progress::Draw() {
    if (!shown_) return;
    // At most ten times a second, so that the terminal keeps up.
    const auto now = std::chrono::steady_clock::now();
    if (done_ < total_ && now - drawn_ < std::chrono::milliseconds(100)) return;
    drawn_ = now;
    constexpr unsigned width = 30;
    const unsigned filled = total_ ? std::min(width, done_ * width / total_) : width;
    std::cerr << "\r" << label_ << " [" << std::string(filled, '#') << std::string(width - filled, '.') << "] " << done_
              << "/" << total_ << std::flush;
}

void Progress::Clear() {
    if (!shown_) return;
    std::cerr << "\r\033[K" << std::flush;
    drawn_ = {};
}

void Destination::Check() const {
    if (inPlace && !out.empty()) throw UsageError("--out and --in-place exclude each other");
    if (!inPlace && out.empty()) throw UsageError("say where the result goes: --out NEW.pdf or --in-place");
    if (inPlace && decrypt) throw UsageError("--decrypt writes a new file: use it with --out");
}

void CheckWritable(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) throw Failure(path.string() + ": is a directory");
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    if (!fs::is_directory(directory, error)) {
        throw Failure(path.string() + ": cannot write the file: no directory " + directory.string());
    }
    if (access(directory.c_str(), W_OK) != 0) {
        throw Failure(path.string() + ": cannot write the file: " + std::strerror(errno));
    }
}

const std::vector<Paper> kPapers = {{"A3", 842, 1191},      {"A4", 595, 842},       {"A5", 420, 595},
                                    {"B5", 499, 709},       {"Letter", 612, 792},   {"Legal", 612, 1008},
                                    {"Tabloid", 792, 1224}, {"Executive", 522, 756}};

const Paper* FindPaper(const std::string& name) {
    for (const Paper& paper : kPapers) {
        if (strcasecmp(paper.name, name.c_str()) == 0) return &paper;
    }
    return nullptr;
}

const Paper* FindPaper(const Orvane::PDF::Size& size) {
    const double shortSide = std::min(size.width, size.height), longSide = std::max(size.width, size.height);
    for (const Paper& paper : kPapers) {
        if (std::abs(shortSide - paper.shortSide) < 2 && std::abs(longSide - paper.longSide) < 2) return &paper;
    }
    return nullptr;
}

void RefuseToOverwrite(const fs::path& out, const fs::path& input, const std::string& hint) {
    std::error_code error;
    if (fs::equivalent(out, input, error)) {
        throw UsageError(out.string() + ": is " + (out == input ? "" : "the same file as " + input.string() + ", ") +
                         "an input of the command: " + hint);
    }
}

std::string PaperNames() {
    std::string names;
    for (const Paper& paper : kPapers) names += (names.empty() ? "" : ", ") + std::string(paper.name);
    return names;
}

std::string ImageExtensions() {
    std::string names;
    for (std::string_view extension : Orvane::PDF::kImageFileExtensions)
        names += (names.empty() ? "" : " ") + std::string(extension);
    return names;
}

std::string FormatRect(const Orvane::PDF::Rect& rect) {
    char text[128];
    std::snprintf(text, sizeof text, "[%.1f %.1f %.1f %.1f]", rect.left, rect.top, rect.right, rect.bottom);
    return text;
}

std::string ToUtf8(const std::wstring& text) {
    return QString::fromStdWString(text).toStdString();
}

std::wstring FromUtf8(const std::string& text) {
    return QString::fromStdString(text).toStdWString();
}

Session::Session() : service_(std::make_unique<Quirelle>(nullptr)) {}

int64 Session::Open(const fs::path& path, const std::string& password) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) throw Failure(path.string() + ": no such file");
    if (fs::is_directory(status)) throw Failure(path.string() + ": is a directory");
    if (!std::ifstream(path)) throw Failure(path.string() + ": cannot read the file: " + std::strerror(errno));
    current_ = path.string();
    const auto opened = service_->OpenDocument(Orvane::ioPath(path), password).get();
    if (opened.id >= 0) {
        if (PageCount(opened.id) == 0) throw Failure(path.string() + ": no page could be read: the file is damaged");
        return opened.id;
    }
    if (opened.passwordError && password.empty()) {
        throw Failure(path.string() + ": the document is encrypted: give its password with --password");
    }
    if (opened.passwordError) throw Failure(path.string() + ": wrong password (--password)");
    throw Failure(path.string() + ": not a PDF or image file, or too damaged to open");
}

unsigned Session::PageCount(int64 id) {
    return static_cast<unsigned>(service_->GetPageCount(id));
}

void Session::RequireEditPages(int64 id, const fs::path& path) {
    if (service_->IsEditPagesProtected(id)) {
        throw Failure(path.string() +
                      ": the document does not allow changing its pages (open it with the owner "
                      "password through --password)");
    }
}

void Session::RequireExtractPages(int64 id, const fs::path& path) {
    if (service_->IsExtractingPagesProtected(id)) {
        throw Failure(path.string() +
                      ": the document does not allow extracting its pages (open it with the owner "
                      "password through --password)");
    }
}

void Session::Save(int64 id, const Destination& destination) {
    if (!destination.inPlace) return SaveAs(id, destination.out, destination.decrypt);
    const std::string path = service_->GetDocumentPath(id).utf8string();
    try {
        if (service_->SaveDocument(id).get()) return;
        throw Failure(path + ": cannot save the document");
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(path + ": cannot save the document: " + e.what());
    }
}

void Session::SaveAs(int64 id, const fs::path& out, bool decrypt) {
    try {
        if (decrypt) {
            if (service_->SaveDocumentAsDecrypted(id, Orvane::ioPath(out)).get()) return;
            if (service_->IsProtected(id)) {
                throw Failure(out.string() +
                              ": --decrypt needs the document opened with its owner password (--password)");
            }
            throw Failure(out.string() + ": cannot write the file");
        }
        if (service_->SaveDocumentAs(id, Orvane::ioPath(out)).get()) return;
        throw Failure(out.string() + ": cannot write the file");
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(out.string() + ": cannot write the file: " + e.what());
    }
}

void ApplyEngineLimits(unsigned timeBudgetMs, unsigned memoryLimitMb) {
    if (timeBudgetMs == 0 && memoryLimitMb == 0) return;
    Orvane::PDF::EngineLimits limits = Orvane::PDF::GetEngineLimits();
    if (timeBudgetMs) limits.timeBudget = std::chrono::milliseconds(timeBudgetMs);
    if (memoryLimitMb) limits.memoryLimitBytes = static_cast<std::size_t>(memoryLimitMb) << 20;
    Orvane::PDF::SetEngineLimits(limits);
}

}  // namespace QuirelleCli
