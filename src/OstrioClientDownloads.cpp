// The client's asset URLs and downloads: which query finds an asset's media, and how a URL's
// bytes reach a file.
//
// Chunks arrive on kelnet's delivery thread, possibly out of order (a segmented download fetches
// ranges in parallel), so each is written at its own offset; the per-download mutex keeps the
// file's state and the progress count consistent. The download's future completes only after
// the transport has finished with the file, so a caller never sees the file still changing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "kelcore/ResultCodes.h"
#include "kelnet/URL.h"
#include "ostriolib/OstrioClient.h"
#include "ostriolib/OstrioKeys.h"

namespace ostriolib {

using kelcore::ImmutableString;
using kelcore::async::Future;
using kelcore::classref::InterfaceRef;

namespace {

// The original's query keeps its own spacing, as the service's clients have always sent it.
constexpr std::string_view kOriginalQuery =
    "query GetDownloadURL($assetID: ID!) { asset(assetId: $assetID) { ... on VideoAsset { media { original { "
    "downloadUrl } } } } }";
constexpr std::string_view kThumbnailQuery =
    "query ThumbnailImageUrl($assetID: ID!) { asset(assetId: $assetID) {... on VideoAsset { thumbnailImageUrl { url "
    "} } } }";

// One download's file. Closed by the completion, or by the first failed write.
struct DownloadFile {
  std::mutex mutex;
  int fd = -1;
  bool writeFailed = false;
  std::uint64_t bytesWritten = 0;

  ~DownloadFile() { Close(); }
  void Close() {
    if (fd >= 0) {
      if (::close(fd) != 0) writeFailed = true;
      fd = -1;
    }
  }
  // Writes the whole chunk at its offset; false (and the file closed) when it could not.
  bool WriteAt(const void* data, std::size_t offset, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
      const ssize_t written = ::pwrite(fd, bytes, size, static_cast<off_t>(offset));
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      bytes += written;
      offset += static_cast<std::size_t>(written);
      size -= static_cast<std::size_t>(written);
      bytesWritten += static_cast<std::uint64_t>(written);
    }
    return true;
  }
};

}  // namespace

OstrioClient::DownloadStrategy OstrioClient::GetDownloadStrategy(RenditionType rendition) {
  DownloadStrategy original{kelcore::ToU8Str(kOriginalQuery), [](const InterfaceRef<OstrioDictionaryResource>& r) {
                              return ExtractUrlFromDictionary(r, {kKeyData, kKeyAsset, kKeyMedia, kKeyOriginal},
                                                              kKeyDownloadURL);
                            }};
  DownloadStrategy thumbnail{kelcore::ToU8Str(kThumbnailQuery), [](const InterfaceRef<OstrioDictionaryResource>& r) {
                               return ExtractUrlFromDictionary(r, {kKeyData, kKeyAsset, kKeyThumbnailImageURL},
                                                               kKeyURL);
                             }};
  return rendition == Thumbnail ? thumbnail : original;
}

ImmutableString OstrioClient::ExtractUrlFromDictionary(const InterfaceRef<OstrioDictionaryResource>& resource,
                                                       const std::vector<ImmutableString>& path,
                                                       const ImmutableString& finalKey) {
  KEL_THROW_IF_NULL(resource, OstrioDictionaryResource);
  kelcore::utility::Dictionary current = resource->GetDictionary();
  for (const auto& key : path) {
    current = current.GetDictionary(key.View());
    if (current.empty()) return {};
  }
  return current.GetImmutableString(finalKey.View());
}

Future<ImmutableString> OstrioClient::GetAssetURL(const kelcore::utility::Guid& assetId,
                                                  const RenditionType& rendition) {
  auto strategy = GetDownloadStrategy(rendition);
  kelcore::utility::Dictionary variables;
  variables.Set(kKeyAssetID, assetId.ToString());
  return RunQuery(strategy.query, variables)
      .ThenOnSuccess([extract = std::move(strategy.extractUrl)](const InterfaceRef<OstrioDictionaryResource>& resource) {
        return extract(resource);
      });
}

Future<void> OstrioClient::DownloadVideoAsset(const kelcore::utility::Guid& assetId, RenditionType rendition,
                                              const kelcore::filesupport::File& target,
                                              DownloadProgressCallback onProgress) {
  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  return GetAssetURL(assetId, rendition)
      .ThenOnSuccess([weak, target, onProgress = std::move(onProgress)](const ImmutableString& url) -> Future<void> {
        auto strongThis = weak.lock();
        KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "",
                        kelcore::ContinuationSite("src/OstrioClient", __LINE__,
                                                  "ostriolib::OstrioClient::DownloadVideoAsset", 1));
        return strongThis->DownloadFileFromURL(url, target, onProgress);
      });
}

Future<void> OstrioClient::DownloadFileFromURL(const ImmutableString& url, const kelcore::filesupport::File& target,
                                               DownloadProgressCallback onProgress) {
  using kelcore::async::MakeFailedFuture;
  if (!kelnet::IsValidURL(url.View())) return MakeFailedFuture<void>(kelcore::kErrorInvalidArgument, "Invalid URL");
  auto service = Service();
  if (!service) return MakeFailedFuture<void>(kelcore::kErrorPreconditionFailed);

  auto file = std::make_shared<DownloadFile>();
  // Opened (and truncated) before anything is sent: an unwritable target costs no request.
  file->fd = ::open(target.Path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file->fd < 0) return MakeFailedFuture<void>(kelcore::kErrorFailed, "Failed to open output file stream");

  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  auto onData = [weak, file, onProgress](const kelcore::utility::Guid&, const void* data, std::size_t offset,
                                         std::size_t size, const kelnet::Progress& progress, const kelnet::HeaderMap&) {
    if (weak.expired()) return;
    DownloadProgress report;
    {
      std::lock_guard lock(file->mutex);
      if (file->fd < 0) return;  // an earlier write failed; the completion reports it
      if (!file->WriteAt(data, offset, size)) {
        file->writeFailed = true;
        file->Close();
        return;
      }
      report = {file->bytesWritten, progress.totalBytes};
    }
    if (onProgress) onProgress(report);
  };

  return service->StreamingGet(url, onData, {})
      .Then(
          [weak, file](Future<std::shared_ptr<kelnet::Response>> done) {
            bool writeFailed = false;
            {
              std::lock_guard lock(file->mutex);
              file->Close();
              writeFailed = file->writeFailed;
            }
            auto strongThis = weak.lock();
            // Where hosts expect this failure to come from, whatever the layout of this file.
            static const kelcore::SourceSite kSite{
                "src/OstrioClient", 706, "ostriolib::OstrioClient::DownloadFileFromURL::<lambda_2>::operator ()"};
            KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "", kSite);
            if (writeFailed) throw kelcore::kel_exception(kelcore::kErrorOperationFailed, "Output stream write failure");
            std::shared_ptr<kelnet::Response> response;
            if (!done.GetException()) response = done.Get();
            if (!response) {
              throw kelcore::kel_exception(kelcore::kErrorNoServerResponse, "Failed to get response from Ostrio server");
            }
            if (!response->IsSuccess()) {
              throw kelcore::kel_exception(kelcore::kErrorOperationFailed, "Streaming GET failure");
            }
          },
          kelcore::async::GetDefaultExecutor());
}

}  // namespace ostriolib
