#include "SessionCommands.h"

#include <chrono>
#include <cstdio>
#include <mutex>

#include "BrowseCommands.h"
#include "CallbackChannel.h"
#include "CliError.h"
#include "kelcore/OSUtilsWrapper.h"
#include "kelcore/Strings.h"
#include "ostriolib/IOstrioAuthManager.h"

namespace ostrio {
namespace {

// --no-browser: the sign-in address goes to the person instead of to a browser.
class PrintingOpener final : public kelcore::IOSUtilsWrapper {
 public:
  bool OpenURL(const std::string& url) override {
    CommandContext::Note("Open this address in a browser to sign in:\n  " + url);
    return true;
  }
  KEL_CLASS_REGISTRATION(PrintingOpener, kelcore::IOSUtilsWrapper)
};

struct LoginWait {
  std::mutex mutex;
  bool done = false;
  int result = 0;
};

std::string DescribeSeconds(long long seconds) {
  if (seconds <= 0) return "expired (it is refreshed on the next request)";
  const long long hours = seconds / 3600;
  const long long minutes = (seconds % 3600) / 60;
  std::string text = "valid for ";
  if (hours > 0) text += std::to_string(hours) + " h ";
  return text + std::to_string(minutes) + " min";
}

}  // namespace

void SessionCommands::Login(CommandContext& context, bool noBrowser, int timeoutSeconds) {
  if (timeoutSeconds < 1) throw CliError::Usage("--timeout must be at least 1 second");
  auto client = context.Client();
  if (client->IsOstrioUserSignedIn()) {
    if (!context.Json()) CommandContext::PrintLine("Already signed in.");
    BrowseCommands::WhoAmI(context);
    return;
  }

  auto authManager = ostriolib::GetOstrioAuthManager();
  if (!authManager) throw CliError::FromResult(kelcore::kErrorFailed, "the library has no auth manager");
  auto wait = std::make_shared<LoginWait>();
  std::weak_ptr<kelcore::async::MainThreadRunLoop> weakLoop = context.Host().Loop();
  // Listening before the browser opens: the redirect cannot arrive before someone waits for it.
  auto channel = CallbackChannel::Listen(
      CliHost::kRedirectScheme, [wait, weakLoop, authManager](const std::string& url) -> CallbackChannel::Reply {
        {
          std::lock_guard lock(wait->mutex);
          if (wait->done) return {kelcore::kErrorFailed, "this login has already taken a sign-in"};
        }
        const int result = authManager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url));
        {
          std::lock_guard lock(wait->mutex);
          wait->done = true;
          wait->result = result;
        }
        if (auto loop = weakLoop.lock()) loop->Post([] {});
        if (result < 0) return {result, CliError::FromResult(result, {}).what()};
        return {result, "signed in"};
      });

  if (noBrowser) {
    authManager->SetOSUtilsWrapper(kelcore::classref::AllocateClassInstance<PrintingOpener>());
  }
  const int started = client->SignInOstrioUser();
  if (started == kelcore::kResultAlreadySignedIn) {
    if (!context.Json()) CommandContext::PrintLine("Already signed in.");
    BrowseCommands::WhoAmI(context);
    return;
  }
  if (started < 0) {
    throw CliError::FromResult(started, noBrowser ? "could not start the sign-in"
                                                  : "could not open the browser for the sign-in (try --no-browser)");
  }
  if (!noBrowser) CommandContext::Note("Waiting for the sign-in in the browser...");

  const bool arrived = context.Host().Loop()->RunUntil(
      [wait] {
        std::lock_guard lock(wait->mutex);
        return wait->done;
      },
      std::chrono::seconds(timeoutSeconds));
  channel.reset();
  int result = 0;
  {
    std::lock_guard lock(wait->mutex);
    if (!arrived && !wait->done) {
      throw CliError(kelcore::kErrorFailed, "no sign-in arrived within " + std::to_string(timeoutSeconds) + " s",
                     kExitFailure);
    }
    result = wait->result;
  }
  if (result < 0) throw CliError::FromResult(result, {});
  BrowseCommands::WhoAmI(context);
}

void SessionCommands::Callback(CommandContext& context, const std::string& url) {
  const auto reply = CallbackChannel::Forward(CliHost::kRedirectScheme, url, std::chrono::seconds(30));
  if (reply.result < 0) throw CliError::FromResult(reply.result, reply.message);
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"signedIn", true}});
  } else {
    CommandContext::PrintLine("Handed the sign-in to the waiting `ostrio login`: " + reply.message + ".");
  }
}

void SessionCommands::Logout(CommandContext& context) {
  const int result = context.Client()->SignOutOstrioUser();
  if (result < 0) throw CliError::FromResult(result, result == kelcore::kErrorNotSignedIn ? "not signed in" : "");
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"signedIn", false}});
  } else {
    CommandContext::PrintLine("Signed out.");
  }
}

void SessionCommands::Status(CommandContext& context) {
  const bool signedIn = context.Client()->IsOstrioUserSignedIn();
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"signedIn", signedIn}});
    return;
  }
  if (!signedIn) {
    CommandContext::PrintLine("Not signed in.");
    return;
  }
  long long seconds = 0;
  const auto token = ostriolib::GetOstrioAuthManager()->GetAccessToken().ToStdString();
  CommandContext::PrintLine(TokenSecondsLeft(token, seconds) ? "Signed in; the access token is " +
                                                                  DescribeSeconds(seconds) + "."
                                                            : "Signed in.");
}

void SessionCommands::Token(CommandContext& context, bool refresh) {
  context.RequireSignedIn();
  auto authManager = ostriolib::GetOstrioAuthManager();
  const std::string token = refresh ? context.Await(authManager->RefreshAccessTokenIfNeeded()).ToStdString()
                                    : authManager->GetAccessToken().ToStdString();
  if (token.empty()) throw CliError(kelcore::kErrorNotSignedIn, "no access token is stored", kExitNotSignedIn);
  if (context.Json()) {
    CommandContext::PrintJson(kelcore::utility::Dictionary{{"accessToken", token}});
  } else {
    CommandContext::PrintLine(token);
  }
}

bool SessionCommands::TokenSecondsLeft(const std::string& token, long long& seconds) {
  const auto first = token.find('.');
  const auto second = first == std::string::npos ? std::string::npos : token.find('.', first + 1);
  if (second == std::string::npos) return false;
  const std::string payload = kelcore::DecodeBinaryDataFromUTF8String(token.substr(first + 1, second - first - 1));
  const auto parsed = kelcore::utility::JSONParseToDictionaryValue(payload.data(), payload.size());
  if (!parsed || !parsed->IsObject()) return false;
  const auto exp = parsed->AsDictionary().Get("exp");
  if (!exp || !exp->IsNumber()) return false;
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  seconds = static_cast<long long>(exp->AsDouble()) - now;
  return true;
}

}  // namespace ostrio
