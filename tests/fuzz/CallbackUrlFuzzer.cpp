// The sign-in redirect: whatever URL the desktop hands back, the manager answers with one of its
// result codes, and when it signs the user in, the record it stored reads back on the next start
// as exactly the tokens it now holds. No network: the store is in memory, the opener records.

#include <cstdint>
#include <string>
#include <string_view>

#include "CredentialRecord.h"
#include "FuzzCheck.h"
#include "OstrioAuthManager.h"
#include "RecordingOSUtilsWrapper.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"
#include "kelcore/ResultCodes.h"

using ostriolib::OstrioAuthManager;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view url(reinterpret_cast<const char*>(data), size);
  auto keychain = kelcore::KeychainUtils::CreateMemoryKeychain();
  auto opener = std::make_shared<RecordingOSUtilsWrapper>();
  auto manager = kelcore::classref::AllocateClassInstance<OstrioAuthManager>(
      keychain, kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>(opener));
  // A scheme in mixed case: the desktop may hand it back in any case.
  manager->Configure("acme+Editor/1.0", "com.acme.Editor-Ostrio", ostriolib::kEnvironmentDevelopment, "");

  const int result = manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url));
  FUZZ_CHECK(result == kelcore::kResultOK || result == kelcore::kErrorInvalidArgument ||
             result == kelcore::kErrorBadCredentials || result == kelcore::kErrorNoServerResponse);
  FUZZ_CHECK(opener->Urls().empty());
  if (result != kelcore::kResultOK) {
    FUZZ_CHECK(manager->GetAccessToken().empty() && manager->GetRefreshToken().empty());
    return 0;
  }

  const std::u16string stored = keychain->GetPassword(std::u16string(OstrioAuthManager::kCredentialService),
                                                      manager->GetCredentialAccountName(), true);
  ostriolib::CredentialRecord record;
  FUZZ_CHECK(ostriolib::ParseCredentialRecord(kelcore::UTF16ToUTF8(stored), record));
  FUZZ_CHECK(record.accessToken == manager->GetAccessToken());
  FUZZ_CHECK(record.refreshToken == manager->GetRefreshToken());

  // A fresh manager on the same store signs in from the record alone.
  auto next = kelcore::classref::AllocateClassInstance<OstrioAuthManager>(
      keychain, kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>(opener));
  FUZZ_CHECK(next->LoadCredentials() == kelcore::kResultOK);
  FUZZ_CHECK(next->GetAccessToken() == manager->GetAccessToken());
  FUZZ_CHECK(next->GetRefreshToken() == manager->GetRefreshToken());
  return 0;
}
