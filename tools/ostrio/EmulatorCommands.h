#pragma once
// EmulatorCommands: the local service in the foreground (`emulator`), and `demo`, which runs the
// whole road against a fresh emulator: sign-in through the redirect without a person, accounts
// -> workspaces -> projects -> the root folder's tree, one original and one thumbnail downloaded
// and their SHA-256 digests.

#include <string>
#include <vector>

#include "CommandContext.h"

namespace ostrio {

class EmulatorCommands {
 public:
  // Does not return on success: the process becomes the emulator.
  static void Emulator(const std::vector<std::string>& arguments);
  static void Demo(CommandContext& context);
};

}  // namespace ostrio
