#pragma once
// The user's credential store: one secret per (service, account).
//
// Three stores sit behind one interface:
//  - the Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret, the desktop's own
//    place for secrets;
//  - a file store: one file per service/account, mode 0600 in a 0700 folder, written atomically,
//    for machines where no Secret Service answers;
//  - a memory store, for tests and for hosts that must not persist anything.
// Every call is bounded in time: a hung or absent service never blocks the caller for long.
// Secrets never appear in logs, traces or error messages.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "kelcore/ClassRef.h"
#include "kelcore/ResultCodes.h"

namespace kelcore {

class IKeychainUtils : public classref::Unknown {
 public:
  ~IKeychainUtils() override = default;

  // `persistent` selects where the secret lives. true: for this user across sessions and
  // restarts (the Secret Service's default collection, normally the login keyring; a file in the
  // file store). false: for the current desktop session only (the Secret Service's session
  // collection, gone at logout; the file store keeps such secrets in process memory). A read or
  // a removal looks only in the place its flag names, so a session secret never shadows a
  // persistent one.

  // Stores the secret, replacing an earlier one for the same service and account.
  // 0 on success, a negative result code otherwise.
  virtual Result AddPassword(const std::u16string& service, const std::u16string& account,
                             const std::u16string& secret, bool persistent) = 0;
  // The stored secret; empty when there is none or the store could not be read.
  virtual std::u16string GetPassword(const std::u16string& service, const std::u16string& account,
                                     bool persistent) = 0;
  // true when a stored secret was removed; false when there was none or removal failed.
  virtual bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) = 0;
  // The login name of the user the process runs as ("alice"); callers fold it into account names
  // so users sharing one store never read each other's records.
  virtual std::u16string GetUserName() = 0;
};

// Which store GetKeychainUtils opens.
enum class KeychainChoice {
  kAuto,           // the Secret Service when one is usable, else the file store, with a warning
  kSecretService,  // the Secret Service only; without one, every operation fails
  kFile,           // the file store
  kMemory,         // the memory store
};

class KeychainUtils {
 public:
  // "auto", "secret-service", "file" or "memory", in any letter case; nullopt for anything else.
  static std::optional<KeychainChoice> ParseKeychainChoice(std::string_view text);

  // The store `choice` names; the file store (and auto's fallback) keeps its files in
  // `fileStoreDirectory`. Returns at once and does no I/O: the Secret Service is probed on the
  // first operation (within a few seconds; its default collection must be, or become, unlocked),
  // so a host that never signs in never talks to D-Bus.
  static classref::InterfaceRef<IKeychainUtils> GetKeychainUtils(KeychainChoice choice,
                                                                  std::filesystem::path fileStoreDirectory);

  static classref::InterfaceRef<IKeychainUtils> CreateMemoryKeychain();
  // The file store in `directory` (created 0700 on first write).
  static classref::InterfaceRef<IKeychainUtils> CreateFileKeychain(std::filesystem::path directory);
  // The Secret Service, or null when none answers within `timeout` or its default collection
  // is missing or stays locked. `timeout` bounds each step of the probe; an unlock that may
  // need the user at a password prompt is allowed `unlockTimeout`.
  static classref::InterfaceRef<IKeychainUtils> CreateSecretServiceKeychain(
      std::chrono::milliseconds timeout = std::chrono::seconds(5),
      std::chrono::milliseconds unlockTimeout = std::chrono::seconds(30));

  // The login name of the user the process runs as (the passwd entry of the effective user,
  // else $USER / $LOGNAME, else the numeric user id).
  static std::u16string CurrentUserName();
};

}  // namespace kelcore
