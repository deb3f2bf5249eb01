#pragma once

// What a PDF file carries besides its pages' drawings, as lines of text that
// two files can be compared by: outline entries with their target pages, page
// labels, form fields with their values and pages, attachments, document
// information and XMP, layers, the structure tree's size, encryption, and the
// catalog's keys. Read with MuPDF directly, on a context of its own.

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace QuirelleTest {

struct DocumentSummary {
    // Section ("outline", "labels", "field", "attachment", "info", "xmp",
    // "layer", "structure", "encryption", "catalog", "pages") -> its lines.
    std::map<std::string, std::vector<std::string>> sections;

    size_t Count(const std::string& section) const {
        const auto found = sections.find(section);
        return found == sections.end() ? 0 : found->second.size();
    }
    const std::vector<std::string>& Lines(const std::string& section) const;
};

// Throws std::runtime_error when the file cannot be opened with the password.
DocumentSummary Summarize(const std::filesystem::path& path, const std::string& password = "");

// What differs, one line each: "-section: line" for a line only a has,
// "+section: line" for one only b has (as many as the counts differ).
std::vector<std::string> Differences(const DocumentSummary& a, const DocumentSummary& b);

}  // namespace QuirelleTest
