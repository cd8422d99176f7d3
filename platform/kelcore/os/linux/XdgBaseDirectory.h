#pragma once
// The XDG base directories of the user the process runs as.

#include <filesystem>

namespace kelcore::linux_detail {

// $<variable> when it holds an absolute path (XDG: relative values are invalid and must be
// ignored), else <home>/<fallbackUnderHome>; home is $HOME, else the passwd entry, else "/".
std::filesystem::path XdgBaseDirectory(const char* variable, const char* fallbackUnderHome);

}  // namespace kelcore::linux_detail
