#pragma once

// Small files that ask the engine for unbounded work, one of each class the
// limits must hold against. Each is a whole PDF of one 200 x 200 point page.

#include <string>
#include <vector>

namespace QuirelleTest {

struct HostilePdf {
    std::string name;
    std::string bytes;
};

// A tiling pattern whose cell is a thousandth of a point, painted over the page.
std::string TinyCellTilingPdf();
// A free-form mesh shading of a hundred million (degenerate) triangles.
std::string HugeShadingPdf();
// A Type 3 font whose glyph draws ten of itself.
std::string DeepType3Pdf();
// A path of 400,000 curves reaching far outside the page, filled and stroked.
std::string HugePathPdf();
// A content stream that inflates to 1.6 GB of zeros, flate over flate.
std::string FlateBombPdf();
// All of them, named.
std::vector<HostilePdf> HostilePdfs();

// The zlib stream of `size` zero bytes, written directly: the same block
// repeated (each ends in a full flush), so even gigabytes take milliseconds.
std::string DeflatedZeros(size_t size);

}  // namespace QuirelleTest
