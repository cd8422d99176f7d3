// Library start-up: host parameters, client ID assembly, environment and domain selection.
// Process begin runs once per process, so each scenario runs in a child process of its own.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "ostriolib/OstrioConfiguration.h"
#include "LibraryConfiguration.h"

namespace {

using ostriolib::GetDevPreviewHeaderValue;
using ostriolib::GetDomainSuffix;
using ostriolib::GetEnvironmentType;
using ostriolib::GetOstrioClientID;

class LibraryConfiguration : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Keep the auth manager's side effects (credential store, scheme registration) away from
    // the real desktop.
    setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
    setenv("XDG_DATA_HOME", ::testing::TempDir().c_str(), 1);
    setenv("XDG_CONFIG_HOME", ::testing::TempDir().c_str(), 1);
    unsetenv("OSTRIOLIB_ENVIRONMENT");
    unsetenv("OSTRIOLIB_PREVIEW");
    unsetenv("OSTRIOLIB_DEBUG_DB");
  }
};

// Exits 0 when check() holds, 1 otherwise, so EXPECT_EXIT reports which scenario broke.
template <class Check>
[[noreturn]] void ExitWith(Check check) {
  std::exit(check() ? 0 : 1);
}

// True when getter() throws the configuration error of that getter, with every detail in place.
template <class Getter>
bool ThrowsNotSet(Getter getter, std::string_view message, std::string_view expression, std::string_view function) {
  try {
    getter();
  } catch (const kelcore::kel_exception& e) {
    return e.GetResult() == kelcore::kErrorOperationFailed && e.GetResult() == static_cast<int>(0xF865001E) &&
           e.Message() == message && e.Expression() == expression && e.SourcePath() == "src/OstrioClient" &&
           e.Function() == function;
  }
  return false;
}

TEST_F(LibraryConfiguration, ClientIdIsAssembledFromHostInformation) {
  EXPECT_EXIT(ExitWith([] {
                const OstrioHostParameter parameters[] = {
                    {"ostriolib.OstrioClientName", "Editor"},
                    {"ostriolib.OstrioRedirectURI", "northwind-\xE9" "diteur"},  // 8-bit host text
                };
                if (OstrioLibBeginProcess("Northwind Media", "25.1", "77", parameters, 2) != 0) return false;
                return GetOstrioClientID() == std::string_view("northwind media+Editor/25.1.77") &&
                       ostriolib::GetOstrioClientName() == "Editor" &&
                       ostriolib::GetOstrioRedirectURI() == "northwind-\xC3\xA9" "diteur";
              }),
              ::testing::ExitedWithCode(0), "");
}

TEST_F(LibraryConfiguration, ParameterWithAnotherTypeTagIsIgnoredAndMissingValuesThrowFromTheirGetters) {
  EXPECT_EXIT(ExitWith([] {
                using kelcore::config::detail::Parameter;
                Parameter parameters[2];
                parameters[0].name = "ostriolib.OstrioClientName";
                parameters[0].type = kelcore::config::detail::kParameterTypeInteger;
                parameters[0].integerValue = 5;
                parameters[1].name = "ostriolib.OstrioClientName";  // only the first of a name counts
                parameters[1].type = kelcore::config::detail::kParameterTypeString;
                parameters[1].stringValue = "Editor";
                kelcore::config::BeginProcess({"Northwind Media", "25.1", "77"}, parameters, 2);
                return kelcore::config::InitializerFailed("OstrioLib") &&
                       ThrowsNotSet(ostriolib::GetOstrioClientName, "Ostrio client name not set",
                                    "sOstrioClientName.empty()", "ostriolib::GetOstrioClientName") &&
                       ThrowsNotSet(ostriolib::GetOstrioRedirectURI, "Ostrio redirect URI not set",
                                    "sOstrioRedirectURI.empty()", "ostriolib::GetOstrioRedirectURI") &&
                       ThrowsNotSet(GetOstrioClientID, "Ostrio client ID not set", "sOstrioClientID.empty()",
                                    "ostriolib::GetOstrioClientID");
              }),
              ::testing::ExitedWithCode(0), "");
}

TEST_F(LibraryConfiguration, MissingRedirectURIFailsInitialisation) {
  EXPECT_EXIT(ExitWith([] {
                const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "Editor"}};
                return OstrioLibBeginProcess("Northwind Media", "25.1", "77", parameters, 1) ==
                           kelcore::kErrorOperationFailed &&
                       OstrioLibBeginProcess("Northwind Media", "25.1", "77", nullptr, 5) == 0;  // once only
              }),
              ::testing::ExitedWithCode(0), "");
}

TEST_F(LibraryConfiguration, EnvironmentDomainAndPreviewComeFromTheDebugDatabase) {
  struct Case {
    const char* value;
    int environment;
    const kelcore::ImmutableString& domain;
  };
  const Case cases[] = {
      {"1", 1, ostriolib::kStageDomain},       {"2", 2, ostriolib::kDevDomain},
      {"7", 7, ostriolib::kProdDomain},        {"staging", 0, ostriolib::kProdDomain},
      {"0", 0, ostriolib::kProdDomain},        {"258", 0, ostriolib::kProdDomain},
      {"-1", 0, ostriolib::kProdDomain},
  };
  for (const auto& c : cases) {
    setenv("OSTRIOLIB_ENVIRONMENT", c.value, 1);
    EXPECT_EQ(static_cast<int>(GetEnvironmentType()), c.environment) << c.value;
    EXPECT_EQ(GetDomainSuffix(GetEnvironmentType()), c.domain) << c.value;
  }
  unsetenv("OSTRIOLIB_ENVIRONMENT");
  EXPECT_EQ(GetEnvironmentType(), ostriolib::kEnvironmentProduction);

  // Each environment's suffix can be pointed elsewhere (the emulator on another port).
  setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.localhost:9443", 1);
  EXPECT_EQ(GetDomainSuffix(ostriolib::kEnvironmentDevelopment), std::string_view(".ostrio.localhost:9443"));
  unsetenv("OSTRIOLIB_DOMAIN_DEVELOPMENT");
  EXPECT_EQ(ostriolib::kDevDomain, std::string_view(".ostrio.localhost:8443"));

  EXPECT_TRUE(GetDevPreviewHeaderValue().empty());
  setenv("OSTRIOLIB_PREVIEW", "pr-1234", 1);
  EXPECT_EQ(GetDevPreviewHeaderValue(), std::string_view("pr-1234"));
}

}  // namespace
