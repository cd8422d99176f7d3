#pragma once
// Library-private configuration accessors.

#include <string>

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {

// The host's client name / redirect URI (UTF-8); throw kel_exception (kErrorOperationFailed)
// "Ostrio client name not set" / "Ostrio redirect URI not set" when the host gave none.
// Exported for the test suites only; not part of the public headers.
OSTRIOLIB_EXPORT std::string GetOstrioClientName();
OSTRIOLIB_EXPORT std::string GetOstrioRedirectURI();

// The domain suffix of an environment: the debug-database override
// ("ostriolib.domain.production" / ".staging" / ".development") if set, else the build-time
// constant. Unknown environments use production.
// Exported for the test suites only; not part of the public headers.
OSTRIOLIB_EXPORT kelcore::ImmutableString GetDomainSuffix(EnvironmentType environment);

}  // namespace ostriolib
