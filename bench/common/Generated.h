#pragma once

// The generated documents the benchmarks and bench/compare.sh use. All of
// them are deterministic: every run draws the same pages.

#include <filesystem>

#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {

// Three pages: 4000 filled rectangles with a few lines of text; 110 lines of
// 6 pt text, "quartz" on every fifth line (needleLines of them); three large
// images (one translucent) over 400 rectangles and 20 lines of text.
struct HeavyDocument {
    QuirelleTest::PdfBuilder builder;
    int needleLines = 0;
};
HeavyDocument BuildHeavyDocument();

// Pages of running text (30 lines of 10 pt), "quartz" once on every 10th page.
void WriteLongDocument(const std::filesystem::path& path, int pages);

// Numbered pages with page labels (roman, then arabic from the 11th) and an
// outline of two entries per page: a chapter every other page, three
// sections under each.
void WriteOutlinedDocument(const std::filesystem::path& path, int pages);

// A page tree as TeX writes one: nodes of at most 10 kids, every page
// sharing one font and one small content stream. Written directly, since the
// document builder would take long over 100,000 pages.
void WriteHugeDocument(const std::filesystem::path& path, int pages);

}  // namespace QuirelleBench
