#pragma once

#include <memory>

#include "orvane/Export.h"
#include "orvane/pdf/Document.h"

namespace Orvane::PDF {

// Resolves fonts that a PDF does not embed through the system's fonts.
class QUIRELLE_EXPORT SystemFontProviderFactory : public IFontProviderFactory {
public:
    SystemFontProviderFactory();
    ~SystemFontProviderFactory() override;
    std::shared_ptr<IFontProvider> CreateFontProvider() override;
};

}  // namespace Orvane::PDF
