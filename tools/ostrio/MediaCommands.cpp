#include "MediaCommands.h"

#include <unistd.h>

#include <atomic>
#include <system_error>

#include "CliError.h"
#include "ProgressBar.h"
#include "ResumableDownload.h"
#include "kelcore/File.h"

namespace ostrio {
namespace {

// Free queries come on the command line; no sane document or set of variables comes near this.
constexpr std::size_t kMaxVariablesBytes = 1024 * 1024;
constexpr std::size_t kMaxDocumentBytes = 1024 * 1024;

bool ShowProgress(const CommandContext& context) { return !context.Json() && ::isatty(STDERR_FILENO) == 1; }

// The client's progress callback, also recording the resource's size for a later --continue.
// The bar is shared: a last report may still be on its way when the download's future completes.
ostriolib::DownloadProgressCallback Reporter(const std::filesystem::path& target,
                                            const std::shared_ptr<ProgressBar>& bar) {
  auto recorded = std::make_shared<std::atomic<bool>>(false);
  return [target, bar, recorded](const ostriolib::DownloadProgress& progress) {
    if (progress.totalBytes > 0 && !recorded->exchange(true)) ResumableDownload::WriteRecord(target, progress.totalBytes);
    bar->Update(progress.bytesWritten, progress.totalBytes);
  };
}

std::uint64_t FinishedSize(const std::filesystem::path& target, ProgressBar& bar) {
  bar.Finish();
  ResumableDownload::RemoveRecord(target);
  std::error_code error;
  const auto size = std::filesystem::file_size(target, error);
  return error ? 0 : size;
}

void PrintSaved(const CommandContext& context, const std::filesystem::path& target, std::uint64_t size) {
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"path", target.string()}, {"size", size}});
  } else {
    CommandContext::PrintLine("Saved " + target.string() + " (" + std::to_string(size) + " bytes)");
  }
}

const char* MediaName(bool thumbnail) { return thumbnail ? "thumbnail" : "original"; }

}  // namespace

void MediaCommands::Url(CommandContext& context, const kelcore::utility::Guid& asset, bool thumbnail) {
  context.RequireSignedIn();
  const auto url = context.Await(context.Client()->GetAssetURL(
      asset, thumbnail ? ostriolib::RenditionType::Thumbnail : ostriolib::RenditionType::Original));
  if (url.empty()) {
    throw CliError(kelcore::kErrorFailed, "the asset " + asset.ToString() + " has no " + MediaName(thumbnail) +
                                              " media",
                   kExitFailure);
  }
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"url", url}});
  } else {
    CommandContext::PrintLine(url.ToStdString());
  }
}

std::uint64_t MediaCommands::Fetch(CommandContext& context, const std::string& url,
                                   const std::filesystem::path& target, bool resume) {
  context.RequireSignedIn();
  auto client = context.Client();
  // The download goes through the client's service, which exists once a query was prepared.
  context.Await(client->PrepareQuery());
  auto bar = std::make_shared<ProgressBar>(ShowProgress(context));
  if (resume) {
    if (ResumableDownload::Resume(context, url, target, *bar) == ResumableDownload::Outcome::Completed) {
      return FinishedSize(target, *bar);
    }
    if (std::filesystem::exists(target)) CommandContext::Note("ostrio: cannot continue " + target.string() +
                                                              "; downloading it from the start");
  }
  context.Await(client->DownloadFileFromURL(url, kelcore::filesupport::File(target), Reporter(target, bar)));
  return FinishedSize(target, *bar);
}

void MediaCommands::Download(CommandContext& context, const kelcore::utility::Guid& asset, bool thumbnail,
                             const std::filesystem::path& target, bool resume) {
  context.RequireSignedIn();
  auto client = context.Client();
  const auto rendition = thumbnail ? ostriolib::RenditionType::Thumbnail : ostriolib::RenditionType::Original;
  std::uint64_t size = 0;
  try {
    if (resume && std::filesystem::exists(target)) {
      const auto url = context.Await(client->GetAssetURL(asset, rendition));
      if (url.empty()) throw CliError::FromResult(kelcore::kErrorInvalidArgument, "Invalid URL");
      size = Fetch(context, url.ToStdString(), target, true);
    } else {
      auto bar = std::make_shared<ProgressBar>(ShowProgress(context));
      context.Await(
          client->DownloadVideoAsset(asset, rendition, kelcore::filesupport::File(target), Reporter(target, bar)));
      size = FinishedSize(target, *bar);
    }
  } catch (const CliError& error) {
    // An asset without that media resolves to an empty URL, which the download calls invalid.
    if (error.Result() != kelcore::kErrorInvalidArgument) throw;
    throw CliError(error.Result(), "the asset " + asset.ToString() + " has no " + MediaName(thumbnail) +
                                       " media (" + error.what() + ")",
                   error.Status());
  }
  PrintSaved(context, target, size);
}

void MediaCommands::Get(CommandContext& context, const std::string& url, const std::filesystem::path& target,
                        bool resume) {
  PrintSaved(context, target, Fetch(context, url, target, resume));
}

kelcore::utility::Dictionary MediaCommands::ParseVariables(const std::string& variablesJson) {
  if (variablesJson.empty()) return {};
  if (variablesJson.size() > kMaxVariablesBytes) throw CliError::Usage("--variables is larger than 1 MiB");
  std::string reason;
  const auto parsed = kelcore::utility::JSONParseToDictionaryValue(variablesJson.data(), variablesJson.size(), &reason);
  if (!parsed) throw CliError::Usage("--variables is not valid JSON: " + reason);
  if (!parsed->IsObject()) throw CliError::Usage("--variables must be a JSON object");
  return parsed->AsDictionary();
}

void MediaCommands::Query(CommandContext& context, const std::string& document, const std::string& variablesJson) {
  const auto variables = ParseVariables(variablesJson);
  if (document.find_first_not_of(" \t\r\n") == std::string::npos) throw CliError::Usage("the query document is empty");
  if (document.size() > kMaxDocumentBytes) throw CliError::Usage("the query document is larger than 1 MiB");
  context.RequireSignedIn();
  const auto resource = context.Await(context.Client()->RunQuery(kelcore::ToU8Str(document), variables));
  CommandContext::PrintJson(resource->GetDictionary());
}

}  // namespace ostrio
