// Answers turned into records, on sparse and odd answers: missing keys, wrong kinds, cursors
// that must not be followed, integers in every JSON form.

#include <gtest/gtest.h>

#include <sstream>

#include "ServiceFixture.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace service_test {
namespace {

using kelcore::utility::Guid;
using namespace ostriolib;

constexpr const char* kG1 = "11111111-1111-4111-8111-111111111111";
constexpr const char* kG2 = "22222222-2222-4222-8222-222222222222";

std::string Id(const Guid& id) { return id.IsNil() ? "nil" : id.ToString().substr(0, 2); }
std::string Str(const kelcore::U8Str& text) { return std::string(kelcore::AsStringView(text)); }
std::string Head(const OstrioObject& o) { return Id(o.id) + "|" + o.typeName.ToStdString() + "|" + Str(o.name); }

// Each record as one line of text, so a table row states all of it.
// Started at once; described once answered.
using Described = std::function<std::string()>;
template <class T>
Described Describe(const kelcore::async::Future<T>& future, std::function<std::string(const T&)> describe) {
  return [future, describe] {
    if (!future.WaitFor(std::chrono::seconds(30))) return std::string("timeout");
    if (auto error = future.GetException()) {
      std::ostringstream out;
      out << "error 0x" << std::hex << static_cast<std::uint32_t>(kelcore::ExtractResultFromException(error));
      return out.str();
    }
    return describe(future.Get());
  };
}

struct RecordCase {
  const char* name;
  std::function<Described(const InterfaceRef<IOstrioService>&)> load;
  const char* expected;
};

std::string Ids(const std::vector<Guid>& ids) {
  std::string out;
  for (const auto& id : ids) out += Id(id) + ",";
  return out;
}

TEST_F(ServiceFixture, RecordsTakeWhatTheAnswerHoldsAndDefaultsForTheRest) {
  const auto user = [](auto& s) {
    return Describe<InterfaceRef<OstrioUser>>(OstrioUser::LoadUser(s), [](auto& r) {
      const CurrentUser u = r->GetUser();
      return Head(u) + "|" + Str(u.email) + "|" + Str(u.profileImageUrl);
    });
  };
  const auto accounts = [](auto& s) {
    return Describe<InterfaceRef<OstrioAccountList>>(OstrioAccountList::LoadAccountList(s), [](auto& r) {
      std::string out;
      for (const Account& a : r->GetAccountList()) out += Head(a) + "|" + std::to_string(a.version) + ";";
      return out;
    });
  };
  const auto workspaces = [](auto& s) {
    return Describe<InterfaceRef<OstrioWorkspaceList>>(
        OstrioWorkspaceList::LoadWorkspaceList(s, Guid(), 5, {}), [](auto& r) {
          const WorkspaceList list = r->GetWorkspaceList();
          std::string out;
          for (const auto& w : list.workspaces) out += Head(w) + ";";
          return out + "next=" + Str(list.nextCursor);
        });
  };
  const auto projects = [](auto& s) {
    return Describe<InterfaceRef<OstrioProjectList>>(OstrioProjectList::LoadProjectList(s, Guid(), 5, {}), [](auto& r) {
      const ProjectList list = r->GetProjectList();
      std::string out;
      for (const auto& p : list.projects) out += Head(p) + "|root " + Id(p.rootAssetId) + ";";
      return out + "next=" + Str(list.nextCursor);
    });
  };
  const auto assets = [](auto& s) {
    return Describe<InterfaceRef<OstrioAssets>>(OstrioAssets::LoadAssets(s, Guid(), 5, {}, 5, {}), [](auto& r) {
      const Assets a = r->GetFolderAssets();
      return "folders " + Ids(a.folders) + "next=" + Str(a.foldersCursor) + " files " + Ids(a.files) +
             "next=" + Str(a.filesCursor);
    });
  };
  const auto workspaceCount = [](auto& s) {
    return Describe<int>(OstrioWorkspaceList::GetWorkspaceCount(s, Guid()), [](int n) { return std::to_string(n); });
  };
  const auto projectCount = [](auto& s) {
    return Describe<int>(OstrioProjectList::GetProjectCount(s, Guid()), [](int n) { return std::to_string(n); });
  };
  const auto assetCounts = [](auto& s) {
    return Describe<AssetCounts>(OstrioAssets::GetAssetCounts(s, Guid()), [](const AssetCounts& c) {
      return "folders " + std::to_string(c.folderCount) + " files " + std::to_string(c.fileCount);
    });
  };
  const std::string g1 = kG1, g2 = kG2;
  const std::vector<std::pair<RecordCase, std::string>> rows = {
      {{"user, full", user, "11|AuthenticatedUser|Dana|d@x|https://m/a.jpg"},
       R"({"data":{"me":{"id":")" + g1 +
           R"(","name":"Dana","email":"d@x","__typename":"AuthenticatedUser","profileImageUrl":"https://m/a.jpg"}}})"},
      {{"user, not authenticated kind", user, "11|User|Dana||"},
       R"({"data":{"me":{"id":")" + g1 + R"(","name":"Dana","__typename":"User","email":7}}})"},
      {{"user, me null", user, "nil||||"}, R"({"data":{"me":null}})"},
      {{"accounts, odd versions and nodes", accounts, "11|Account|A|3;22|||7;nil||C|1;nil|||0;nil|||-4;"},
       R"({"data":{"me":{"accounts":{"nodes":[{"account":{"id":")" + g1 +
           R"(","__typename":"Account","displayName":"A","version":3.9}},{"account":{}},{"x":1},"s",)"
           R"({"account":{"id":")" + g2 + R"(","version":"7"}},{"account":{"displayName":"C","version":true}},)"
           R"({"account":{"id":"not-a-guid","version":{}}},{"account":{"version":-4.7}}]}}}})"},
      {{"accounts, user without accounts", accounts, ""}, R"({"data":{"me":{"id":")" + g1 + R"("}}})"},
      {{"accounts, versions beyond 32 bits", accounts, "nil|||2147483647;nil|||-2147483648;nil|||2147483647;"},
       R"({"data":{"me":{"accounts":{"nodes":[{"account":{"version":99999999999}},)"
       R"({"account":{"version":"-99999999999999999999999"}},{"account":{"version":1e300}}]}}}})"},
      {{"workspaces, last page keeps its cursor to itself", workspaces, "11||W;nil||no id;next="},
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","name":"W"},{},{"name":"no id"}],"pageInfo":{"endCursor":"c9","hasNextPage":false}}}}})"},
      {{"workspaces, next page", workspaces, "11|Workspace|W;next=c9"},
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","__typename":"Workspace","name":"W"}],"pageInfo":{"endCursor":"c9","hasNextPage":true}}}}})"},
      {{"workspaces, hasNextPage not a boolean", workspaces, "next="},
       R"({"data":{"account":{"workspaces":{"nodes":[],"pageInfo":{"endCursor":"c9","hasNextPage":"true"}}}}})"},
      {{"projects, no pageInfo, no root", projects, "11|Project|P|root nil;22||Q|root 11;next="},
       R"({"data":{"workspace":{"projects":{"nodes":[{"id":")" + g1 + R"(","__typename":"Project","name":"P"},)"
           R"({"id":")" + g2 + R"(","name":"Q","rootAssetId":")" + g1 + R"("}]}}}})"},
      {{"projects, nodes not an array", projects, "next=c1"},
       R"({"data":{"workspace":{"projects":{"nodes":{"id":"x"},"pageInfo":{"endCursor":"c1","hasNextPage":true}}}}})"},
      {{"assets, kinds page independently", assets, "folders next= files 11,22,next=f2"},
       R"({"data":{"files":{"nodes":[{"id":")" + g1 + R"("},{"id":")" + g2 +
           R"("}],"pageInfo":{"endCursor":"f2","hasNextPage":true}}}})"},
      {{"assets, folders only, last page", assets, "folders 22,next= files next="},
       R"({"data":{"folders":{"nodes":[{"id":")" + g2 + R"("}],"pageInfo":{"endCursor":"d1","hasNextPage":false}},"files":null}})"},
      {{"workspace count from a string", workspaceCount, "12"},
       R"({"data":{"account":{"workspaces":{"totalCount":"12"}}}})"},
      {{"workspace count, no workspaces", workspaceCount, "0"}, R"({"data":{"account":{}}})"},
      {{"workspace count, empty data", workspaceCount, "error 0xa00f0001"}, R"({"data":{}})"},
      {{"project count", projectCount, "3"}, R"({"data":{"workspace":{"projects":{"totalCount":3}}}})"},
      {{"asset counts, files only", assetCounts, "folders 0 files 10000"},
       R"({"data":{"files":{"totalCount":10000.0}}})"},
      {{"asset counts, data null", assetCounts, "error 0xa00f0001"}, R"({"data":null})"},
  };
  for (const auto& [c, body] : rows) {
    SCOPED_TRACE(c.name);
    const Described described = c.load(service);
    ASSERT_TRUE(Answer(body));
    EXPECT_EQ(described(), c.expected);
  }
}

}  // namespace
}  // namespace service_test
