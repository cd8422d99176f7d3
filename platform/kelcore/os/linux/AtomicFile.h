#pragma once
// Whole-file replacement that a crash cannot tear: a temporary file next to the target, synced,
// then renamed over it, and the folder synced.

#include <sys/types.h>

#include <filesystem>
#include <string_view>

namespace kelcore::linux_detail {

// The temporary file is ".<name>.XXXXXX" in the target's folder and is created with `mode`
// (never wider than asked, whatever the umask). false, leaving the old file, on any failure.
bool WriteFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode);

}  // namespace kelcore::linux_detail
