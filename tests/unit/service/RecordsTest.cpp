// Answers turned into records, on sparse and odd answers: missing keys, wrong kinds, cursors that
// must not be followed, integers in every JSON form. Each record is written as one line of text,
// so that a row of the table states all of it.

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

using namespace ostriolib;
using kelcore::utility::Guid;
using Service = InterfaceRef<IOstrioService>;
using Described = std::function<std::string()>;

const std::string g1 = "11111111-1111-4111-8111-111111111111", g2 = "22222222-2222-4222-8222-222222222222";

std::string Id(const Guid& id) { return id.IsNil() ? "nil" : id.ToString().substr(0, 2); }
std::string Str(const kelcore::U8Str& text) { return std::string(kelcore::AsStringView(text)); }
std::string Head(const OstrioObject& o) { return Id(o.id) + "|" + o.typeName.ToStdString() + "|" + Str(o.name); }
std::string Ids(const std::vector<Guid>& ids) {
  std::string out;
  for (const auto& id : ids) out += Id(id) + ",";
  return out;
}

// Started now; described once answered.
template <class T, class F>
Described Describe(const kelcore::async::Future<T>& future, F describe) {
  return [future, describe] {
    if (!future.WaitFor(std::chrono::seconds(30))) return std::string("timeout");
    std::ostringstream out;
    if (auto error = future.GetException()) {
      out << "error 0x" << std::hex << static_cast<std::uint32_t>(kelcore::ExtractResultFromException(error));
    } else {
      out << describe(future.Get());
    }
    return out.str();
  };
}

Described User(const Service& s) {
  return Describe(OstrioUser::LoadUser(s), [](const auto& r) {
    const CurrentUser u = r->GetUser();
    return Head(u) + "|" + Str(u.email) + "|" + Str(u.profileImageUrl);
  });
}
Described Accounts(const Service& s) {
  return Describe(OstrioAccountList::LoadAccountList(s), [](const auto& r) {
    std::string out;
    for (const Account& a : r->GetAccountList()) out += Head(a) + "|" + std::to_string(a.version) + ";";
    return out;
  });
}
Described Workspaces(const Service& s) {
  return Describe(OstrioWorkspaceList::LoadWorkspaceList(s, Guid(), 5, {}), [](const auto& r) {
    const WorkspaceList list = r->GetWorkspaceList();
    std::string out;
    for (const auto& w : list.workspaces) out += Head(w) + ";";
    return out + "next=" + Str(list.nextCursor);
  });
}
Described Projects(const Service& s) {
  return Describe(OstrioProjectList::LoadProjectList(s, Guid(), 5, {}), [](const auto& r) {
    const ProjectList list = r->GetProjectList();
    std::string out;
    for (const auto& p : list.projects) out += Head(p) + "|root " + Id(p.rootAssetId) + ";";
    return out + "next=" + Str(list.nextCursor);
  });
}
Described FolderAssets(const Service& s) {
  return Describe(OstrioAssets::LoadAssets(s, Guid(), 5, {}, 5, {}), [](const auto& r) {
    const Assets a = r->GetFolderAssets();
    return "folders " + Ids(a.folders) + "next=" + Str(a.foldersCursor) + " files " + Ids(a.files) + "next=" +
           Str(a.filesCursor);
  });
}
Described WorkspaceCount(const Service& s) { return Describe(OstrioWorkspaceList::GetWorkspaceCount(s, Guid()), [](int n) { return n; }); }
Described ProjectCount(const Service& s) { return Describe(OstrioProjectList::GetProjectCount(s, Guid()), [](int n) { return n; }); }
Described AssetCount(const Service& s) {
  return Describe(OstrioAssets::GetAssetCounts(s, Guid()), [](const AssetCounts& c) {
    return "folders " + std::to_string(c.folderCount) + " files " + std::to_string(c.fileCount);
  });
}

TEST_F(ServiceFixture, RecordsTakeWhatTheAnswerHoldsAndDefaultsForTheRest) {
  const std::vector<std::tuple<Described (*)(const Service&), std::string, const char*>> cases = {
      {User, R"({"data":{"me":{"id":")" + g1 +
                 R"(","name":"Dana","email":"d@x","__typename":"AuthenticatedUser","profileImageUrl":"https://m/a"}}})",
       "11|AuthenticatedUser|Dana|d@x|https://m/a"},
      {User, R"({"data":{"me":{"id":")" + g1 + R"(","name":"Dana","__typename":"User","email":7}}})", "11|User|Dana||"},
      {User, R"({"data":{"me":null}})", "nil||||"},
      {Accounts,
       R"({"data":{"me":{"accounts":{"nodes":[{"account":{"id":")" + g1 +
           R"(","__typename":"Account","displayName":"A","version":3.9}},{"account":{}},{"x":1},"s",)"
           R"({"account":{"id":")" + g2 + R"(","version":"7"}},{"account":{"displayName":"C","version":true}},)"
           R"({"account":{"id":"not-a-guid","version":{}}},{"account":{"version":-4.7}}]}}}})",
       "11|Account|A|3;22|||7;nil||C|1;nil|||0;nil|||-4;"},
      {Accounts, R"({"data":{"me":{"id":")" + g1 + R"("}}})", ""},
      {Accounts,
       R"({"data":{"me":{"accounts":{"nodes":[{"account":{"version":99999999999}},)"
       R"({"account":{"version":"-99999999999999999999999"}},{"account":{"version":1e300}}]}}}})",
       "nil|||2147483647;nil|||-2147483648;nil|||2147483647;"},
      {Workspaces,
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","name":"W"},{},{"name":"no id"}],"pageInfo":{"endCursor":"c9","hasNextPage":false}}}}})",
       "11||W;nil||no id;next="},
      {Workspaces,
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","__typename":"Workspace","name":"W"}],"pageInfo":{"endCursor":"c9","hasNextPage":true}}}}})",
       "11|Workspace|W;next=c9"},
      {Workspaces, R"({"data":{"account":{"workspaces":{"pageInfo":{"endCursor":"c9","hasNextPage":"true"}}}}})",
       "next="},
      {Projects,
       R"({"data":{"workspace":{"projects":{"nodes":[{"id":")" + g1 + R"(","__typename":"Project","name":"P"},)"
           R"({"id":")" + g2 + R"(","name":"Q","rootAssetId":")" + g1 + R"("}]}}}})",
       "11|Project|P|root nil;22||Q|root 11;next="},
      {Projects,
       R"({"data":{"workspace":{"projects":{"nodes":{"id":"x"},"pageInfo":{"endCursor":"c1","hasNextPage":true}}}}})",
       "next=c1"},
      {FolderAssets,
       R"({"data":{"files":{"nodes":[{"id":")" + g1 + R"("},{"id":")" + g2 +
           R"("}],"pageInfo":{"endCursor":"f2","hasNextPage":true}}}})",
       "folders next= files 11,22,next=f2"},
      {FolderAssets,
       R"({"data":{"folders":{"nodes":[{"id":")" + g2 +
           R"("}],"pageInfo":{"endCursor":"d1","hasNextPage":false}},"files":null}})",
       "folders 22,next= files next="},
      {WorkspaceCount, R"({"data":{"account":{"workspaces":{"totalCount":"12"}}}})", "12"},
      {WorkspaceCount, R"({"data":{"account":{}}})", "0"},
      {WorkspaceCount, R"({"data":{}})", "error 0xa00f0001"},
      {ProjectCount, R"({"data":{"workspace":{"projects":{"totalCount":3}}}})", "3"},
      {AssetCount, R"({"data":{"files":{"totalCount":10000.0}}})", "folders 0 files 10000"},
      {AssetCount, R"({"data":null})", "error 0xa00f0001"},
  };
  for (const auto& [load, body, expected] : cases) {
    SCOPED_TRACE(body);
    const Described described = load(service);
    ASSERT_TRUE(Answer(body));
    EXPECT_EQ(described(), expected);
  }
}

}  // namespace
}  // namespace service_test
