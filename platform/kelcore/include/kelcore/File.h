#pragma once
// A file-system location.

#include <filesystem>
#include <string>

namespace kelcore::filesupport {

class File {
 public:
  File() = default;
  explicit File(std::filesystem::path path) : path_(std::move(path)) {}
  // The absolute, lexically normalised path in UTF-16 (empty for an empty File).
  std::u16string FullPath() const;
  const std::filesystem::path& Path() const noexcept { return path_; }

  // The folder under which applications keep the current user's state, each in a folder of its
  // own: $XDG_STATE_HOME, else ~/.local/state, on freedesktop systems.
  static std::filesystem::path UserStateDirectory();

 private:
  std::filesystem::path path_;
};

}  // namespace kelcore::filesupport
