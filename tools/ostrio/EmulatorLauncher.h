#pragma once
// EmulatorLauncher: the local Ostrio service (emulator/run) as a child of the CLI, for `demo`.
// Start waits (bounded) for the emulator's first line, which names its port, domain suffix and
// CA; the destructor stops it (SIGTERM, then SIGKILL if it lingers).

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace ostrio {

class EmulatorLauncher {
 public:
  // A file of the source tree the binary was built in (relative, e.g. "emulator/run"): under
  // $OSTRIO_SOURCE_DIR if set, else under the nearest folder above the executable that has it
  // (builds live in build/<preset> inside the tree; no build path is compiled in). Empty when
  // there is none (an installed binary).
  static std::filesystem::path SourceFile(const std::string& relative);
  // The emulator's folder: $OSTRIO_EMULATOR_DIR, else the source tree's emulator/; throws
  // CliError when there is none.
  static std::filesystem::path Directory();
  // Replaces this process by the emulator in the foreground (`ostrio emulator`); returns only on
  // failure, with the reason.
  static std::string ExecForeground(const std::vector<std::string>& arguments);

  // Starts an emulator on a free port with the given state folder; throws CliError on failure.
  static std::unique_ptr<EmulatorLauncher> Start(const std::filesystem::path& stateDir);
  ~EmulatorLauncher();
  EmulatorLauncher(const EmulatorLauncher&) = delete;
  EmulatorLauncher& operator=(const EmulatorLauncher&) = delete;

  const std::string& Suffix() const { return suffix_; }  // ".ostrio.localhost:PORT"
  const std::string& CaPath() const { return caPath_; }
  int Port() const { return port_; }
  void Stop();

 private:
  EmulatorLauncher() = default;
  pid_t pid_ = -1;
  int output_ = -1;
  int port_ = 0;
  std::string suffix_;
  std::string caPath_;
};

}  // namespace ostrio
