#include "CallbackChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "CliError.h"
#include "kelcore/Configuration.h"

namespace ostrio {
namespace {

using Clock = std::chrono::steady_clock;

// A callback that connects and then says nothing must not hold the waiting login forever.
constexpr std::chrono::milliseconds kReadLimit{5000};
constexpr std::size_t kMaxReplyBytes = 4096;

CliError SystemError(const std::string& what, int error) {
  return CliError(kelcore::kErrorFailed, what + ": " + std::strerror(error), kExitFailure);
}

CliError NobodyWaiting() {
  return CliError(kelcore::kErrorPreconditionFailed,
                  "no `ostrio login` of this user is waiting for a sign-in; the redirect was refused and nothing "
                  "was stored",
                  kExitFailure);
}

std::filesystem::path HomeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
  if (const passwd* entry = ::getpwuid(::geteuid()); entry && entry->pw_dir) return entry->pw_dir;
  throw CliError(kelcore::kErrorFailed, "cannot find the home folder for the state folder", kExitFailure);
}

sockaddr_un SocketAddress(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof address.sun_path) {
    throw CliError(kelcore::kErrorInvalidArgument,
                   "the state folder's path is too long for the login socket (" + text + "); set OSTRIOLIB_STATEDIR "
                   "to a shorter folder",
                   kExitFailure);
  }
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

// Reads until end of stream, at most limit + 1 bytes (so an over-long input shows), within deadline.
bool ReadAll(int fd, std::string& out, std::size_t limit, Clock::time_point deadline) {
  char buffer[4096];
  while (out.size() <= limit) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd ready{fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, static_cast<int>(left));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    out.append(buffer, static_cast<std::size_t>(got));
  }
  return true;
}

bool WriteAll(int fd, const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t put = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    sent += static_cast<std::size_t>(put);
  }
  return true;
}

void StripLineEnd(std::string& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

}  // namespace

bool CallbackChannel::HasScheme(const std::string& url, const std::string& scheme) {
  if (url.size() < scheme.size() + 3) return false;
  for (std::size_t i = 0; i < scheme.size(); ++i) {
    const char a = url[i] >= 'A' && url[i] <= 'Z' ? static_cast<char>(url[i] - 'A' + 'a') : url[i];
    const char b = scheme[i] >= 'A' && scheme[i] <= 'Z' ? static_cast<char>(scheme[i] - 'A' + 'a') : scheme[i];
    if (a != b) return false;
  }
  return url.compare(scheme.size(), 3, "://") == 0;
}

std::filesystem::path CallbackChannel::Directory() {
  std::filesystem::path state(
      kelcore::config::DebugDatabase::Instance().GetEntry("ostriolib.statedir", "").ToStdString());
  if (state.empty()) {
    // XDG: a relative XDG_STATE_HOME is invalid and ignored.
    const char* xdg = std::getenv("XDG_STATE_HOME");
    state = (xdg && *xdg == '/' ? std::filesystem::path(xdg) : HomeDirectory() / ".local" / "state") / "ostriolib";
  }
  std::error_code error;
  std::filesystem::create_directories(state, error);
  if (error) throw CliError(kelcore::kErrorFailed, "cannot create the state folder " + state.string() + ": " +
                                                       error.message(), kExitFailure);
  const std::filesystem::path dir = state / "cli";
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) throw SystemError("cannot create " + dir.string(), errno);
  struct stat info {};
  if (::lstat(dir.c_str(), &info) != 0) throw SystemError("cannot inspect " + dir.string(), errno);
  if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
    throw CliError(kelcore::kErrorFailed, dir.string() + " is not a folder of this user's own; refusing to use it",
                   kExitFailure);
  }
  if ((info.st_mode & 077) != 0 && ::chmod(dir.c_str(), 0700) != 0) {
    throw SystemError("cannot make " + dir.string() + " private", errno);
  }
  return dir;
}

std::unique_ptr<CallbackChannel> CallbackChannel::Listen(const std::string& scheme, Handler handler) {
  const std::filesystem::path dir = Directory();
  const std::filesystem::path lockPath = dir / "login.lock";
  const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lockFd < 0) throw SystemError("cannot open " + lockPath.string(), errno);
  if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(lockFd);
    if (error == EWOULDBLOCK) {
      throw CliError(kelcore::kErrorFailed, "another `ostrio login` is already waiting for a sign-in", kExitFailure);
    }
    throw SystemError("cannot lock " + lockPath.string(), error);
  }
  // Holding the lock, whatever socket file is there was left by a login that has ended.
  const std::filesystem::path socketPath = dir / "login.sock";
  const sockaddr_un address = SocketAddress(socketPath);
  ::unlink(socketPath.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    const int error = errno;
    ::close(lockFd);
    throw SystemError("cannot create the login socket", error);
  }
  // The folder is the user's alone (0700), so the socket is unreachable before its chmod.
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(socketPath.c_str(), 0600) != 0 || ::listen(fd, 8) != 0) {
    const int error = errno;
    ::close(fd);
    ::unlink(socketPath.c_str());
    ::close(lockFd);
    throw SystemError("cannot listen on " + socketPath.string(), error);
  }
  std::unique_ptr<CallbackChannel> channel(new CallbackChannel(fd, lockFd, socketPath, scheme, std::move(handler)));
  channel->thread_ = std::thread([raw = channel.get()] { raw->Run(); });
  return channel;
}

CallbackChannel::CallbackChannel(int listenFd, int lockFd, std::filesystem::path socketPath, std::string scheme,
                                 Handler handler)
    : listenFd_(listenFd),
      lockFd_(lockFd),
      socketPath_(std::move(socketPath)),
      scheme_(std::move(scheme)),
      handler_(std::move(handler)) {
  if (::pipe2(stopPipe_, O_CLOEXEC) != 0) {
    const int error = errno;
    ::close(listenFd_);
    ::close(lockFd_);
    throw SystemError("cannot create a pipe", error);
  }
}

CallbackChannel::~CallbackChannel() {
  // Gone before the lock is released: a callback arriving after this finds nobody waiting.
  ::unlink(socketPath_.c_str());
  const char stop = 1;
  if (::write(stopPipe_[1], &stop, 1) < 0) {
    // The pipe cannot be full or closed here; the thread is joined either way below.
  }
  if (thread_.joinable()) thread_.join();
  ::close(listenFd_);
  ::close(stopPipe_[0]);
  ::close(stopPipe_[1]);
  ::close(lockFd_);
}

void CallbackChannel::Run() {
  for (;;) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    if ((fds[0].revents & POLLIN) == 0) continue;
    const int connection = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    Serve(connection);
    ::close(connection);
  }
}

void CallbackChannel::Serve(int connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != ::geteuid()) return;

  std::string url;
  Reply reply;
  if (!ReadAll(connection, url, kMaxUrlBytes, Clock::now() + kReadLimit)) {
    reply = {kelcore::kErrorInvalidArgument, "the redirect did not arrive in time"};
  } else if (url.size() > kMaxUrlBytes) {
    reply = {kelcore::kErrorInvalidArgument, "the redirect URL is too long"};
  } else {
    StripLineEnd(url);
    if (!HasScheme(url, scheme_)) {
      reply = {kelcore::kErrorInvalidArgument, "not a sign-in redirect of the " + scheme_ + " scheme"};
    } else {
      reply = handler_(url);
    }
  }
  std::string line = std::to_string(reply.result) + " " + reply.message;
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  WriteAll(connection, line + "\n");
}

CallbackChannel::Reply CallbackChannel::Forward(const std::string& scheme, const std::string& url,
                                                std::chrono::milliseconds timeout) {
  if (url.size() > kMaxUrlBytes) throw CliError::Usage("the redirect URL is too long");
  if (!HasScheme(url, scheme)) {
    throw CliError(kelcore::kErrorInvalidArgument, "not a sign-in redirect of the " + scheme + " scheme; refused",
                   kExitFailure);
  }
  const std::filesystem::path socketPath = Directory() / "login.sock";
  const sockaddr_un address = SocketAddress(socketPath);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw SystemError("cannot create a socket", errno);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(fd);
    if (error == ENOENT || error == ECONNREFUSED) throw NobodyWaiting();
    throw SystemError("cannot reach the waiting login", error);
  }
  std::string answer;
  const bool sent = WriteAll(fd, url) && ::shutdown(fd, SHUT_WR) == 0;
  const bool read = sent && ReadAll(fd, answer, kMaxReplyBytes, Clock::now() + timeout);
  ::close(fd);
  if (!read || answer.empty()) {
    throw CliError(kelcore::kErrorNoResponse, "the waiting login did not answer", kExitFailure);
  }
  StripLineEnd(answer);
  Reply reply;
  const auto space = answer.find(' ');
  try {
    reply.result = std::stoi(answer.substr(0, space));
  } catch (const std::exception&) {
    throw CliError(kelcore::kErrorNoResponse, "the waiting login gave an unreadable answer", kExitFailure);
  }
  if (space != std::string::npos) reply.message = answer.substr(space + 1);
  return reply;
}

}  // namespace ostrio
