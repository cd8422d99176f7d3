#pragma once
// Plumbing shared by the credential stores: class-reference answers and the warning trace.

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

// Traces (category "kelcore", level 2: a warning) about the credential store. The text
// names places and reasons only, never a secret.
void Warn(std::string_view text);

}  // namespace kelcore::keychain_detail
