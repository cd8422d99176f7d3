#include "ResumableDownload.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <system_error>

#include "CliError.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/IOstrioService.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostrio {
namespace {

struct Transfer {
  std::mutex mutex;
  int fd = -1;
  std::uint64_t expected = 0;
  bool sizeChanged = false;
  bool writeFailed = false;
};

bool WriteAt(int fd, const void* data, std::size_t size, std::uint64_t offset) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t put = ::pwrite(fd, bytes, size, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<std::size_t>(put);
    offset += static_cast<std::uint64_t>(put);
  }
  return true;
}

// "bytes */N" of a 416 answer: the resource's size.
bool UnsatisfiedRangeTotal(const kelnet::Response& response, std::uint64_t& total) {
  // The header map is read directly: the CLI links only the library, not the transport.
  std::string range;
  const auto [begin, end] = response.Headers().equal_range(kelcore::ImmutableString("content-range"));
  for (auto it = begin; it != end; ++it) range = it->second.ToStdString();
  const auto slash = range.rfind('/');
  if (range.rfind("bytes */", 0) != 0 || slash == std::string::npos) return false;
  try {
    std::size_t used = 0;
    total = std::stoull(range.substr(slash + 1), &used);
    return used == range.size() - slash - 1;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

std::filesystem::path ResumableDownload::RecordPath(const std::filesystem::path& target) {
  return std::filesystem::path(target.string() + ".ostrio-partial");
}

bool ResumableDownload::WriteRecord(const std::filesystem::path& target, std::uint64_t totalBytes) {
  // Whole or not at all: the process may be stopped at any moment of a download.
  const std::filesystem::path record = RecordPath(target);
  const std::filesystem::path partial(record.string() + ".new");
  {
    std::ofstream out(partial, std::ios::trunc);
    out << "size=" << totalBytes << "\n";
    out.close();
    if (!out) return false;
  }
  std::error_code error;
  std::filesystem::rename(partial, record, error);
  return !error;
}

bool ResumableDownload::ReadRecord(const std::filesystem::path& target, std::uint64_t& totalBytes) {
  std::ifstream in(RecordPath(target));
  std::string line;
  if (!std::getline(in, line) || line.rfind("size=", 0) != 0 || line.size() > 32) return false;
  try {
    std::size_t used = 0;
    totalBytes = std::stoull(line.substr(5), &used);
    return used == line.size() - 5 && totalBytes > 0;
  } catch (const std::exception&) {
    return false;
  }
}

void ResumableDownload::RemoveRecord(const std::filesystem::path& target) {
  std::error_code ignored;
  std::filesystem::remove(RecordPath(target), ignored);
}

ResumableDownload::Outcome ResumableDownload::Resume(CommandContext& context, const std::string& url,
                                                     const std::filesystem::path& target, ProgressBar& progress) {
  std::error_code error;
  const std::uint64_t have = std::filesystem::file_size(target, error);
  std::uint64_t expected = 0;
  if (error || have == 0 || !ReadRecord(target, expected) || have > expected) return Outcome::StartOver;

  auto authManager = ostriolib::GetOstrioAuthManager();
  const auto token = context.Await(authManager->RefreshAccessTokenIfNeeded());
  auto service = ostriolib::CreateOstrioService();
  if (!service) throw CliError::FromResult(kelcore::kErrorOperationFailed, "Could not initialize the OstrioService");
  const int initialized = service->Initialize(ostriolib::GetOstrioClientID(), token, ostriolib::GetEnvironmentType(),
                                              ostriolib::GetDevPreviewHeaderValue(), {});
  if (initialized < 0) throw CliError::FromResult(initialized, "Could not initialize the OstrioService");

  auto transfer = std::make_shared<Transfer>();
  transfer->expected = expected;
  transfer->fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
  if (transfer->fd < 0) {
    throw CliError(kelcore::kErrorFailed, "Failed to open output file stream: " + std::string(std::strerror(errno)),
                   kExitFailure);
  }
  auto onData = [transfer, &progress](const kelcore::utility::Guid&, const void* data, std::size_t offset,
                                      std::size_t size, const kelnet::Progress& status, const kelnet::HeaderMap&) {
    std::lock_guard lock(transfer->mutex);
    // fd < 0: the transfer is over and progress may be gone.
    if (transfer->fd < 0 || transfer->sizeChanged || transfer->writeFailed) return;
    if (status.totalBytes != 0 && status.totalBytes != transfer->expected) {
      transfer->sizeChanged = true;
      return;
    }
    if (!WriteAt(transfer->fd, data, size, offset)) {
      transfer->writeFailed = true;
      return;
    }
    progress.Update(offset + size, transfer->expected);
  };
  kelnet::HeaderMap headers{{"range", "bytes=" + std::to_string(have) + "-"}};
  std::shared_ptr<kelnet::Response> response;
  try {
    response = context.Await(service->StreamingGet(url, onData, headers));
  } catch (...) {
    std::lock_guard lock(transfer->mutex);
    ::close(transfer->fd);
    transfer->fd = -1;
    throw;
  }
  std::lock_guard lock(transfer->mutex);
  ::close(transfer->fd);
  transfer->fd = -1;
  if (transfer->writeFailed) throw CliError::FromResult(kelcore::kErrorOperationFailed, "Output stream write failure");
  if (!response) throw CliError::FromResult(kelcore::kErrorNoServerResponse, "Failed to get response from Ostrio server");
  if (response->StatusCode() == kelnet::kStatusRangeNotSatisfiable) {
    // Nothing after our last byte: complete if the resource is exactly what we have.
    std::uint64_t total = 0;
    if (UnsatisfiedRangeTotal(*response, total) && total == have && have == expected) return Outcome::Completed;
    return Outcome::StartOver;
  }
  if (!response->IsSuccess()) throw CliError(kelcore::kErrorOperationFailed, "Streaming GET failure", kExitNetwork);
  if (transfer->sizeChanged) return Outcome::StartOver;
  if (std::filesystem::file_size(target, error) != expected || error) {
    throw CliError(kelcore::kErrorOperationFailed, "the download ended before the end of the file", kExitNetwork);
  }
  return Outcome::Completed;
}

}  // namespace ostrio
