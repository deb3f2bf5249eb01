#include "tests/support/HostilePdf.h"

#include <zlib.h>

#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {
namespace {

// One 200 x 200 page (object 3) with the given resources and content stream
// (its dictionary entries and data); further objects follow from number 5.
std::vector<std::string> OnePage(const std::string& resources, const std::string& entries,
                                 const std::string& content) {
    return {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Resources " + resources + " /Contents 4 0 R >>",
            RawStream(entries, content)};
}

}  // namespace

std::string DeflatedZeros(size_t size) {
    constexpr size_t kChunk = 1 << 20;
    z_stream z{};
    deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
    std::string zeros(kChunk, '\0');
    std::string block(kChunk, '\0');
    z.next_in = reinterpret_cast<Bytef*>(zeros.data());
    z.avail_in = kChunk;
    z.next_out = reinterpret_cast<Bytef*>(block.data());
    z.avail_out = kChunk;
    deflate(&z, Z_FULL_FLUSH);
    block.resize(kChunk - z.avail_out);
    deflateEnd(&z);
    std::string out = "\x78\xda";
    for (size_t i = 0; i < size / kChunk; ++i) out += block;
    out += std::string("\x03\x00", 2);  // an empty final block
    const uint32_t adler = uint32_t((size / kChunk * kChunk) % 65521) << 16 | 1u;
    for (int shift = 24; shift >= 0; shift -= 8) out += char((adler >> shift) & 0xFF);
    return out;
}

std::string TinyCellTilingPdf() {
    auto objects = OnePage("<< /Pattern << /P 5 0 R >> >>", "", "/Pattern cs /P scn 0 0 200 200 re f");
    objects.push_back(RawStream("/Type /Pattern /PatternType 1 /PaintType 1 /TilingType 1 /BBox [0 0 0.001 0.001] "
                                "/XStep 0.001 /YStep 0.001 /Resources << >>",
                                "0 0 1 rg 0 0 0.0005 0.0005 re f"));
    return RawPdf(objects);
}

std::string HugeShadingPdf() {
    // Six bytes a vertex (flag, x, y, r, g, b), three vertices a triangle.
    auto objects = OnePage("<< /Shading << /S 5 0 R >> >>", "", "/S sh");
    objects.push_back(RawStream("/ShadingType 4 /ColorSpace /DeviceRGB /BitsPerCoordinate 8 /BitsPerComponent 8 "
                                "/BitsPerFlag 8 /Decode [0 200 0 200 0 1 0 1 0 1] /Filter /FlateDecode",
                                DeflatedZeros(size_t(18) * 100'000'000)));
    return RawPdf(objects);
}

std::string DeepType3Pdf() {
    auto objects = OnePage("<< /Font << /F 5 0 R >> >>", "", "BT /F 200 Tf 0 0 Td (aaaaaaaaaa) Tj ET");
    objects.push_back("<< /Type /Font /Subtype /Type3 /FontBBox [0 0 1000 1000] /FontMatrix [0.001 0 0 0.001 0 0] "
                      "/CharProcs << /a 6 0 R >> /Encoding << /Type /Encoding /Differences [97 /a] >> /FirstChar 97 "
                      "/LastChar 97 /Widths [100] /Resources << /Font << /F 5 0 R >> >> >>");
    objects.push_back(RawStream("", "100 0 d0 BT /F 100 Tf 0 0 Td (aaaaaaaaaa) Tj ET 0 0 50 50 re f"));
    return RawPdf(objects);
}

std::string HugePathPdf() {
    std::string path = "0 0 m\n";
    for (int i = 0; i < 400'000; ++i) path += "-100000 100000 100000 -100000 " + std::to_string(i % 200) + " 100 c\n";
    const std::string content = path + "f\n" + path + "5 w S\n";
    return RawPdf(OnePage("<< >>", "/Filter /FlateDecode", Deflate(content)));
}

std::string FlateBombPdf() {
    return RawPdf(OnePage("<< >>", "/Filter [/FlateDecode /FlateDecode]",
                          Deflate(DeflatedZeros(size_t(40000) * 40000))));
}

std::vector<HostilePdf> HostilePdfs() {
    return {{"tiny-cell tiling", TinyCellTilingPdf()},
            {"huge shading", HugeShadingPdf()},
            {"deep Type 3", DeepType3Pdf()},
            {"huge path", HugePathPdf()},
            {"flate bomb", FlateBombPdf()}};
}

}  // namespace QuirelleTest
