#pragma once
// Library-private configuration accessors.

#include <string>

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {

// The host's client name / redirect URI (UTF-8); throw kel_exception (kErrorOperationFailed)
// "Ostrio client name not set" / "Ostrio redirect URI not set" when the host gave none.
std::string GetOstrioClientName();
std::string GetOstrioRedirectURI();
// Stores the client ID the start-up initialiser assembled.
void SetOstrioClientID(const kelcore::ImmutableString& clientId);

// The domain suffix of an environment: the debug-database override
// ("ostriolib.domain.production" / ".staging" / ".development") if set, else the build-time
// constant. Unknown environments use production.
kelcore::ImmutableString GetDomainSuffix(EnvironmentType environment);

}  // namespace ostriolib
