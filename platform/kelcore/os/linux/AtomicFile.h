#pragma once
// Whole-file replacement that a crash cannot tear: a temporary file next to the target, synced,
// then renamed over it, and the folder synced.

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace kelcore::linux_detail {

// The temporary file is ".<name>.XXXXXX" in the target's folder and is created with `mode`
// (never wider than asked, whatever the umask). false, leaving the old file and no temporary one,
// on any failure, with the failing step and the system's reason in `reason`.
bool WriteFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode, std::string& reason);

}  // namespace kelcore::linux_detail
