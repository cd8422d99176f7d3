#pragma once
// Plumbing shared by the credential stores: class-reference answers and the warning trace.

#include <chrono>
#include <string>
#include <string_view>

#include "kelcore/ClassRef.h"
#include "kelcore/KeychainUtils.h"

namespace kelcore::keychain_detail {

template <class Self>
class KeychainBackend : public IKeychainUtils {
 public:
  KEL_CLASS_REGISTRATION(Self, IKeychainUtils)

  std::u16string GetUserName() override { return KeychainUtils::CurrentUserName(); }
};

// A warning (category "kelcore") about the credential store. The text names places and reasons
// only, never a secret.
void Warn(std::string_view text);

// The OS's Secret Service store, or null and the reason when none is usable (see
// KeychainUtils::CreateSecretServiceKeychain).
classref::InterfaceRef<IKeychainUtils> OpenSecretService(std::chrono::milliseconds timeout,
                                                         std::chrono::milliseconds unlockTimeout, std::string& reason);

}  // namespace kelcore::keychain_detail
