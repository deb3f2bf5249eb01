#include "orvane/IoPath.h"

namespace Orvane {

ioPath::ioPath(const char* utf8) : path_(std::filesystem::u8path(utf8 == nullptr ? "" : utf8)) {}
ioPath::ioPath(const std::string& utf8) : path_(std::filesystem::u8path(utf8)) {}
ioPath::ioPath(std::filesystem::path path) : path_(std::move(path)) {}

ioPath& ioPath::make_preferred() {
    path_.make_preferred();
    return *this;
}

ioPath ioPath::extension() const {
    return ioPath(path_.extension());
}

bool ioPath::empty() const noexcept {
    return path_.empty();
}

std::string ioPath::utf8string() const {
    return path_.u8string();
}

std::ostream& operator<<(std::ostream& out, const ioPath& path) {
    return out << path.utf8string();
}

}  // namespace Orvane
