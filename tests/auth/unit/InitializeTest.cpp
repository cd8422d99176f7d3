// The only test of this binary that calls Initialize: its work is done once per process.

#include <gtest/gtest.h>

#include <fstream>

#include "AuthTestSupport.h"
#include "kelcore/UrlSchemeRegistration.h"

namespace ostriolib {
namespace {

using kelcore::classref::AllocateClassInstance;
using kelcore::classref::InterfaceRef;

std::filesystem::path DesktopEntry(const std::string& scheme) {
  return std::filesystem::path(std::getenv("XDG_DATA_HOME")) / "applications" /
         kelcore::UrlSchemeRegistration::DesktopFileName(scheme);
}

TEST(Initialize, RunsOncePerProcessButAlwaysChecksItsArguments) {
  auto opener = std::make_shared<RecordingOSUtilsWrapper>();
  auto first = AllocateClassInstance<OstrioAuthManager>(kelcore::KeychainUtils::CreateMemoryKeychain(),
                                                        InterfaceRef<kelcore::IOSUtilsWrapper>(opener));
  EXPECT_EQ(first->Initialize("", "ostrio-once", kEnvironmentDevelopment, ""), kelcore::kErrorInvalidArgument);
  EXPECT_EQ(first->Initialize("acme+Editor/1.0.1", "ostrio-once", kEnvironmentDevelopment, ""), 0);
  EXPECT_TRUE(std::filesystem::exists(DesktopEntry("ostrio-once")));

  EXPECT_EQ(first->Initialize("other+App/2.0.2", "ostrio-twice", kEnvironmentProduction, ""), 0);
  EXPECT_EQ(first->Initialize("acme+Editor/1.0.1", "", kEnvironmentDevelopment, ""), kelcore::kErrorInvalidArgument);
  ASSERT_EQ(first->Login({}), 0);
  EXPECT_EQ(opener->Urls().back(),
            "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=ostrio-once://ostrio");

  first.Reset();
  auto second = AllocateClassInstance<OstrioAuthManager>(kelcore::KeychainUtils::CreateMemoryKeychain(),
                                                         InterfaceRef<kelcore::IOSUtilsWrapper>(opener));
  EXPECT_EQ(second->Initialize("acme+Editor/1.0.1", "ostrio-again", kEnvironmentDevelopment, ""), 0);
  EXPECT_FALSE(std::filesystem::exists(DesktopEntry("ostrio-twice")));
  EXPECT_FALSE(std::filesystem::exists(DesktopEntry("ostrio-again")));
}

TEST(GetOstrioAuthManager, IsOneInstanceWhileHeldAndANewOneAfter) {
  auto held = GetOstrioAuthManager();
  EXPECT_EQ(GetOstrioAuthManager(), held);
  EXPECT_TRUE(held.Query<OstrioAuthManager>());
  std::weak_ptr<IOstrioAuthManager> old = held.Weak();
  held.Reset();
  EXPECT_TRUE(old.expired());
  EXPECT_TRUE(GetOstrioAuthManager());
}

}  // namespace
}  // namespace ostriolib
