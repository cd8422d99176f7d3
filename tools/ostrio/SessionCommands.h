#pragma once
// SessionCommands: sign-in and the session: login, callback, logout, status, token.

#include <string>

#include "CommandContext.h"

namespace ostrio {

class SessionCommands {
 public:
  // Starts the browser sign-in and waits (at most timeoutSeconds) for `ostrio callback` to hand
  // over the redirect; prints the user. Already signed in: says so and succeeds.
  static void Login(CommandContext& context, bool noBrowser, int timeoutSeconds);
  // Forwards a redirect URL of our scheme to the waiting login; refuses when none waits.
  static void Callback(CommandContext& context, const std::string& url);
  static void Logout(CommandContext& context);
  static void Status(CommandContext& context);
  // Prints the access token; refresh: refresh it first when it is near expiry.
  static void Token(CommandContext& context, bool refresh);

  // Seconds the access token (a JWT) has left by its "exp" claim; false when it has none.
  static bool TokenSecondsLeft(const std::string& token, long long& seconds);
};

}  // namespace ostrio
