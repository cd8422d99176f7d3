// Every auth unit test runs in throwaway XDG folders, with an in-memory credential store and an
// opener that opens nothing, so no test can touch the desktop of the user running it.

#include <cstdlib>

#include "AuthTestSupport.h"

namespace {

class AuthTestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    const auto root = scratch_.Path().string();
    for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
      std::filesystem::create_directories(root + "/" + name);
      ::setenv(name, (root + "/" + name).c_str(), 1);
    }
    ::setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
    ::setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
    ::setenv("OSTRIOLIB_BROWSER", "false", 1);
    ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.test:8443", 1);
  }

 private:
  ostriolib::testing::TemporaryDirectory scratch_;
};

[[maybe_unused]] ::testing::Environment* const sEnvironment =
    ::testing::AddGlobalTestEnvironment(new AuthTestEnvironment);

}  // namespace
