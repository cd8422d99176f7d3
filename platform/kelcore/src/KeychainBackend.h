#pragma once
// Plumbing shared by the credential stores: class-reference answers and the warning trace.

#include <string_view>

#include "kelcore/ClassRef.h"
#include "kelcore/KeychainUtils.h"

namespace kelcore::keychain_detail {

template <class Self>
class KeychainBackend : public IKeychainUtils {
 public:
  const ImmutableString& GetUnknownTypeName() const override {
    static const ImmutableString name(debug::GetTypeName<Self>());
    return name;
  }
  std::u16string GetUserName() override { return KeychainUtils::CurrentUserName(); }

 protected:
  void* QueryMap(std::string_view interfaceName) override {
    if (interfaceName == debug::GetTypeName<IKeychainUtils>()) return static_cast<IKeychainUtils*>(this);
    if (interfaceName == debug::GetTypeName<Self>()) return static_cast<Self*>(this);
    return nullptr;
  }
};

// Traces (category "kelcore", level 2: a warning) about the credential store. The text
// names places and reasons only, never a secret.
void Warn(std::string_view text);

}  // namespace kelcore::keychain_detail
