// The module `require('ostriolib')` loads: the script classes the library registers, realised on
// Node by the engine, plus what only the host does: configure() before first use, and
// handleCallbackUrl() when the sign-in redirect comes back.

#include <napi.h>

#include <filesystem>
#include <string>

#include "NodeScriptEngine.h"
#include "kelcore/Configuration.h"
#include "kelcore/Strings.h"
#include "kelcore/UrlSchemeRegistration.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib::node {
namespace {

constexpr std::size_t kMaxParameterLength = 4096;
// A callback URL carries the credential record: two tokens, an expiry and a user id.
constexpr std::size_t kMaxCallbackUrlLength = 64 * 1024;
// The library registers the sign-in scheme for the running executable; a host that names its own
// handler registers it again, under the same name.
constexpr const char* kSchemeDisplayName = "URL: Ostrio Sign In Protocol";

std::string StringOption(const Napi::Object& options, const char* key, bool required) {
  const Napi::Value value = options.Get(key);
  if (value.IsUndefined() && !required) return {};
  if (!value.IsString()) {
    throw Napi::TypeError::New(options.Env(), std::string("configure(options): options.") + key + " must be a string");
  }
  std::string text = value.As<Napi::String>().Utf8Value();
  if (text.size() > kMaxParameterLength || text.find('\0') != std::string::npos) {
    throw Napi::RangeError::New(options.Env(), std::string("configure(options): options.") + key +
                                                   " must be at most 4096 bytes, without NUL characters");
  }
  if (required && text.empty()) {
    throw Napi::TypeError::New(options.Env(), std::string("configure(options): options.") + key + " must not be empty");
  }
  return text;
}

Napi::Value Configure(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() < 1 || !info[0].IsObject()) {
    throw Napi::TypeError::New(env, "configure(options): options must be an object");
  }
  const Napi::Object options = info[0].As<Napi::Object>();
  const std::string clientName = StringOption(options, "clientName", true);
  const std::string redirectUri = StringOption(options, "redirectUri", true);
  const std::string companyName = StringOption(options, "companyName", false);
  const std::string version = StringOption(options, "version", false);
  const std::string buildNumber = StringOption(options, "buildNumber", false);
  const std::string schemeHandler = StringOption(options, "schemeHandler", false);
  // The browser hands the sign-in back under this scheme; anything else could never come back.
  if (!kelcore::UrlSchemeRegistration::IsValidScheme(redirectUri)) {
    throw Napi::TypeError::New(env, "configure(options): options.redirectUri must be a URL scheme (a letter, then "
                                    "letters, digits, '+', '-' or '.')");
  }

  // The library takes its parameters once per process and ignores later ones; saying so beats
  // running on with values the host did not ask for.
  if (kelcore::config::ProcessBegun()) {
    throw Napi::Error::New(env, "configure(options): ostriolib is already configured in this process");
  }
  const OstrioHostParameter parameters[] = {
      {"ostriolib.OstrioClientName", clientName.c_str()},
      {"ostriolib.OstrioRedirectURI", redirectUri.c_str()},
  };
  const int started = OstrioLibBeginProcess(companyName.c_str(), version.c_str(), buildNumber.c_str(), parameters,
                                            std::size(parameters));
  if (started < 0) ThrowFailure(env, "configure(options): ostriolib could not start", started);
  env.AddCleanupHook([] { OstrioLibEndProcess(); });

  if (!schemeHandler.empty()) {
    kelcore::UrlSchemeRegistration::Handler handler;
    handler.scheme = redirectUri;
    handler.displayName = kSchemeDisplayName;
    handler.executable = std::filesystem::absolute(schemeHandler);
    const kelcore::Result registered = kelcore::UrlSchemeRegistration::Register(handler);
    if (registered < 0) {
      ThrowFailure(env, "configure(options): the scheme handler could not be registered for " + redirectUri,
                   registered);
    }
  }
  return env.Undefined();
}

Napi::Value HandleCallbackUrl(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() < 1 || !info[0].IsString()) throw Napi::TypeError::New(env, "handleCallbackUrl(url): url must be a string");
  const std::string url = info[0].As<Napi::String>().Utf8Value();
  if (url.size() > kMaxCallbackUrlLength) {
    throw Napi::RangeError::New(env, "handleCallbackUrl(url): url must be at most 65536 bytes");
  }
  const auto authManager = GetOstrioAuthManager();
  if (!authManager) ThrowFailure(env, "handleCallbackUrl(url): ostriolib has no auth manager", kelcore::kErrorFailed);
  return Napi::Number::New(env, authManager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)));
}

Napi::Object Init(Napi::Env env, Napi::Object exports) {
  auto engine = NodeScriptEngine::Attach(env);
  engine->ExportClasses(exports);
  exports.Set("configure", Napi::Function::New(env, &Configure, "configure"));
  exports.Set("handleCallbackUrl", Napi::Function::New(env, &HandleCallbackUrl, "handleCallbackUrl"));
  return exports;
}

}  // namespace
}  // namespace ostriolib::node

// The macro pastes the function's name into an identifier, so it takes an unqualified one.
static Napi::Object InitOstriolib(Napi::Env env, Napi::Object exports) { return ostriolib::node::Init(env, exports); }
NODE_API_MODULE(ostriolib, InitOstriolib)
