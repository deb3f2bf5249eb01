#include "orvane/Exception.h"

#include <utility>

namespace Orvane {

Exception::Exception(std::string message) : message_(std::move(message)) {}
Exception::~Exception() = default;
const char* Exception::what() const noexcept {
    return message_.c_str();
}

}  // namespace Orvane
