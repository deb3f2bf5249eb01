#pragma once

#include <boost/exception/exception.hpp>
#include <exception>
#include <string>

#include "orvane/Export.h"

namespace Orvane {

// An engine failure that is neither a bad file, a bad password nor a bad page
// index; what() carries the engine's own message.
class QUIRELLE_EXPORT Exception : public virtual std::exception, public virtual boost::exception {
public:
    explicit Exception(std::string message);
    ~Exception() override;
    const char* what() const noexcept override;

private:
    std::string message_;
};

}  // namespace Orvane
