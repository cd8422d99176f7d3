#pragma once
// CallbackChannel: hands the sign-in redirect from `ostrio callback URL` (started by the browser
// through the registered URL scheme) to the `ostrio login` of the same user that is waiting for it.
//
// The channel is a Unix socket, "login.sock" in "<state folder>/cli" (the folder 0700, the socket
// 0600, both the user's own), that exists only while a login waits. A callback that finds no
// waiting login stores nothing: a sign-in that nobody here started is how a web page able to open
// our scheme would sign the user in under another account. The login side also checks the peer's
// uid and takes only a URL of our own scheme, and answers every connection with one line, so the
// callback can say what happened.

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace ostrio {

class CallbackChannel {
 public:
  // Longest URL either side accepts (a redirect carries a few tokens, far below this).
  static constexpr std::size_t kMaxUrlBytes = 64 * 1024;

  struct Reply {
    int result = 0;       // the sign-in's result code (0 signed in)
    std::string message;  // one line
  };
  // Runs on the listener's thread for each URL of our scheme; its reply goes back to the callback.
  using Handler = std::function<Reply(const std::string& url)>;

  // The login side: while this object lives, callbacks of this user reach handler. Throws
  // CliError when another login is already waiting or the state folder is not safe to use.
  static std::unique_ptr<CallbackChannel> Listen(const std::string& scheme, Handler handler);
  ~CallbackChannel();
  CallbackChannel(const CallbackChannel&) = delete;
  CallbackChannel& operator=(const CallbackChannel&) = delete;

  // The callback side: forwards url to the waiting login and returns its reply. Throws CliError
  // when the URL is not of our scheme or no login of this user is waiting.
  static Reply Forward(const std::string& scheme, const std::string& url, std::chrono::milliseconds timeout);

  // True when url begins with "<scheme>://" (scheme compared without case).
  static bool HasScheme(const std::string& url, const std::string& scheme);
  // "<state folder>/cli", created 0700 if missing; throws CliError when it is not ours alone.
  static std::filesystem::path Directory();

 private:
  CallbackChannel(int listenFd, int lockFd, std::filesystem::path socketPath, std::string scheme, Handler handler);
  void Run();
  void Serve(int connection);

  int listenFd_;
  int lockFd_;
  int stopPipe_[2] = {-1, -1};
  std::filesystem::path socketPath_;
  std::string scheme_;
  Handler handler_;
  std::thread thread_;
};

}  // namespace ostrio
