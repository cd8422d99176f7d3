#pragma once
// ResumableDownload: `--continue` for downloads. The client's download always starts a file
// over, so a partial file is continued through a service of our own with a Range request.
//
// A download records the resource's size beside its target ("<target>.ostrio-partial") as soon as
// the server tells it, and removes the record once the file is complete. A partial file is
// continued only when such a record exists and the server still reports that size; a server that
// ignores the range sends the whole resource, which is written over the file at its offsets.

#include <cstdint>
#include <filesystem>
#include <string>

#include "CommandContext.h"
#include "ProgressBar.h"

namespace ostrio {

class ResumableDownload {
 public:
  enum class Outcome { Completed, StartOver };

  // Continues target from its current size. StartOver: there is nothing to continue (no record,
  // another size now); the caller downloads from the beginning.
  static Outcome Resume(CommandContext& context, const std::string& url, const std::filesystem::path& target,
                        ProgressBar& progress);

  static std::filesystem::path RecordPath(const std::filesystem::path& target);
  // Writes the record; false when it could not be written (the download goes on without it).
  static bool WriteRecord(const std::filesystem::path& target, std::uint64_t totalBytes);
  static bool ReadRecord(const std::filesystem::path& target, std::uint64_t& totalBytes);
  static void RemoveRecord(const std::filesystem::path& target);
};

}  // namespace ostrio
