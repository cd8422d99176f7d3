#pragma once
// MediaCommands: an asset's media URL, downloads to a file, and free GraphQL queries.

#include <filesystem>
#include <string>

#include "CommandContext.h"
#include "kelcore/Guid.h"

namespace ostrio {

class MediaCommands {
 public:
  static void Url(CommandContext& context, const kelcore::utility::Guid& asset, bool thumbnail);
  // resume: continue a partial file with a range request when the server allows it and the
  // resource's size is the one the partial file was part of; else start over.
  static void Download(CommandContext& context, const kelcore::utility::Guid& asset, bool thumbnail,
                       const std::filesystem::path& target, bool resume);
  static void Get(CommandContext& context, const std::string& url, const std::filesystem::path& target, bool resume);
  // variablesJson: a JSON object; empty means no variables.
  static void Query(CommandContext& context, const std::string& document, const std::string& variablesJson);

  // Downloads url (already resolved) to target; returns the file's size. Used by the commands
  // above and by the demo.
  static std::uint64_t Fetch(CommandContext& context, const std::string& url, const std::filesystem::path& target,
                             bool resume);
  // The variables of `query`: a JSON object, or a usage error before anything is sent.
  static kelcore::utility::Dictionary ParseVariables(const std::string& variablesJson);
};

}  // namespace ostrio
