#pragma once

// Damaged files, made the ways files get damaged: cut short, tables broken
// or gone, counts that lie, chains that loop. Each damage works on the bytes
// of any file (a file the builder made or a real one) and keeps its length
// where it can, so that the rest of the file stays where it was.

#include <string>
#include <vector>

namespace QuirelleTest {

// The first fraction of the file.
std::string Truncated(const std::string& file, double fraction);
// The newest cross-reference table or stream (and a table's trailer)
// overwritten with spaces; startxref still points at where it was.
std::string WithoutXref(const std::string& file);
// Bytes inserted after the header: every offset the file records is wrong.
std::string WithShiftedObjects(const std::string& file);
// An update appended whose cross-reference section lists no object and
// names itself as /Prev, so the chain never reaches the older sections.
// Empty when the file names no /Root in plain text.
std::string WithLoopingUpdate(const std::string& file);
// The page-tree root's /Count made all nines (same length, so larger).
// Empty when the root is not found in plain text.
std::string WithLyingCount(const std::string& file);
// The data of every object stream overwritten with spaces. Empty when the
// file has none.
std::string WithoutObjectStreams(const std::string& file);

// A sound file of `pages` pages whose catalog and page-tree root sit in an
// object stream and whose cross-reference table is a stream.
std::string CompressedPdf(int pages);

struct DamagedPdf {
    std::string name;
    std::string bytes;
    int pages;  // the pages a reader can show
};

// One small file of every class of damage the engine repairs on open.
std::vector<DamagedPdf> DamagedPdfs();

}  // namespace QuirelleTest
