#pragma once

#include <filesystem>
#include <ostream>
#include <string>

#include "orvane/Export.h"

namespace Orvane {

using int64 = int64_t;

// A file path value. Strings given to it and taken from it are UTF-8.
class QUIRELLE_EXPORT ioPath {
public:
    ioPath() = default;
    ioPath(const char* utf8);
    ioPath(const std::string& utf8);
    ioPath(std::filesystem::path path);

    // Turns separators into the platform's preferred ones, in place.
    ioPath& make_preferred();
    // The extension with its dot ("photo.JPG" gives ".JPG"); empty if none.
    ioPath extension() const;
    bool empty() const noexcept;
    std::string utf8string() const;
    const std::filesystem::path& path() const noexcept { return path_; }

    friend bool operator==(const ioPath& a, const ioPath& b) { return a.path_ == b.path_; }
    friend bool operator!=(const ioPath& a, const ioPath& b) { return !(a == b); }
    // Writes the UTF-8 path as it is, without quotes.
    friend QUIRELLE_EXPORT std::ostream& operator<<(std::ostream& out, const ioPath& path);

private:
    std::filesystem::path path_;
};

}  // namespace Orvane
