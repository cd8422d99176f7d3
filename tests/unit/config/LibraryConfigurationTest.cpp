// Library start-up: host parameters, client ID assembly, environment and domain selection.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "ostriolib/OstrioConfiguration.h"
#include "LibraryConfiguration.h"
#include "ScratchFolders.h"

using namespace ostriolib;

class LibraryConfiguration : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  // Process begin runs once per process: each scenario runs in a child that exits 0 when it holds.
  static void ExpectInChild(bool (*scenario)()) {
    EXPECT_EXIT(std::exit(scenario() ? 0 : 1), ::testing::ExitedWithCode(0), "");
  }
  // The auth manager's side effects (credential store, scheme registration) stay away from the
  // real desktop.
  ScopedEnvironment environment_{{"OSTRIOLIB_KEYCHAIN", "memory"},
                                 {"XDG_DATA_HOME", ::testing::TempDir()},
                                 {"XDG_CONFIG_HOME", ::testing::TempDir()},
                                 {"OSTRIOLIB_ENVIRONMENT", std::nullopt},
                                 {"OSTRIOLIB_PREVIEW", std::nullopt},
                                 {"OSTRIOLIB_DEBUG_DB", std::nullopt}};
};

// True when getter() throws the configuration error of that getter, with every detail in place.
template <class Getter>
static bool ThrowsNotSet(Getter getter, std::string_view message, std::string_view expression, std::string_view function) {
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
  ExpectInChild([] {
    const OstrioHostParameter parameters[] = {
        {"ostriolib.OstrioClientName", "Editor"},
        {"ostriolib.OstrioRedirectURI", "northwind-\xE9" "diteur"},  // 8-bit host text
    };
    return OstrioLibBeginProcess("Northwind Media", "25.1", "77", parameters, 2) == 0 &&
           GetOstrioClientID() == std::string_view("northwind media+Editor/25.1.77") &&
           GetOstrioRedirectURI() == "northwind-\xC3\xA9" "diteur";
  });
}

TEST_F(LibraryConfiguration, ParameterWithAnotherTypeTagIsIgnoredAndMissingValuesThrowFromTheirGetters) {
  ExpectInChild([] {
    using namespace kelcore::config::detail;
    const Parameter parameters[] = {
        {"ostriolib.OstrioClientName", kParameterTypeInteger, nullptr, 5},
        {"ostriolib.OstrioClientName", kParameterTypeString, "Editor", 0},  // only the first of a name counts
    };
    kelcore::config::BeginProcess({"Northwind Media", "25.1", "77"}, parameters, 2);
    return kelcore::config::InitializerFailed("OstrioLib") &&
           ThrowsNotSet(GetOstrioClientName, "Ostrio client name not set", "sOstrioClientName.empty()",
                        "ostriolib::GetOstrioClientName") &&
           ThrowsNotSet(GetOstrioRedirectURI, "Ostrio redirect URI not set", "sOstrioRedirectURI.empty()",
                        "ostriolib::GetOstrioRedirectURI") &&
           ThrowsNotSet(GetOstrioClientID, "Ostrio client ID not set", "sOstrioClientID.empty()",
                        "ostriolib::GetOstrioClientID");
  });
}

TEST_F(LibraryConfiguration, MissingRedirectURIFailsInitialisation) {
  ExpectInChild([] {
    const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "Editor"}};
    return OstrioLibBeginProcess("Northwind Media", "25.1", "77", parameters, 1) == kelcore::kErrorOperationFailed &&
           OstrioLibBeginProcess("Northwind Media", "25.1", "77", nullptr, 5) == 0;  // once only
  });
}

TEST_F(LibraryConfiguration, EnvironmentDomainAndPreviewComeFromTheDebugDatabase) {
  const std::pair<const char*, const kelcore::ImmutableString&> cases[] = {
      {nullptr, kProdDomain},     {"1", kStageDomain},  {"2", kDevDomain},
      {"staging", kProdDomain}, {"258", kProdDomain}, {"-1", kProdDomain}};
  for (const auto& [value, domain] : cases) {
    value ? setenv("OSTRIOLIB_ENVIRONMENT", value, 1) : unsetenv("OSTRIOLIB_ENVIRONMENT");
    EXPECT_EQ(GetDomainSuffix(GetEnvironmentType()), domain) << value;
  }
  setenv("OSTRIOLIB_ENVIRONMENT", "7", 1);  // unknown but in range: kept, served by production
  EXPECT_EQ(static_cast<int>(GetEnvironmentType()), 7);
  EXPECT_EQ(GetDomainSuffix(GetEnvironmentType()), kProdDomain);

  EXPECT_TRUE(GetDevPreviewHeaderValue().empty());
  setenv("OSTRIOLIB_PREVIEW", "pr-1234", 1);
  EXPECT_EQ(GetDevPreviewHeaderValue(), std::string_view("pr-1234"));
}
