#pragma once

// The image files OpenDocument opens as documents (one page per image, one
// per frame of a TIFF), told apart from PDF files by the name's extension.

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>

namespace Orvane::PDF {

// Lower case, with the dot.
inline constexpr std::array<std::string_view, 6> kImageFileExtensions = {".png", ".jpg", ".jpeg",
                                                                         ".bmp", ".tif", ".tiff"};

// true when extension (with its dot, in any case) is one of kImageFileExtensions.
inline bool IsImageFileExtension(std::string extension) {
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(kImageFileExtensions.begin(), kImageFileExtensions.end(), extension) != kImageFileExtensions.end();
}

}  // namespace Orvane::PDF
