// A real OstrioService over the recording transport and the fake scheduler: what each operation
// puts on the wire (the body byte for byte, its document compared with the emulator's list of
// known documents, the one it also checks live requests against; the endpoint and common headers;
// where the token may go; how many requests at once; which failures are retried), how an answer
// is judged and turned into records, the places failures say they come from, and loads refused
// before anything is sent.

#include <gtest/gtest.h>

#include <atomic>

#include "FakeService.h"
#include "TransportTestSupport.h"
#include "kelappsupport/ServiceBase.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace ostriolib {
namespace {

using kelcore::utility::Guid;
using transport_test::FakeRequestPtr;
using Service = kelcore::classref::InterfaceRef<IOstrioService>;
using Started = kelcore::async::Future<void>;

constexpr const char* kJson = "application/json; charset=utf-8";
constexpr auto kHangGuard = std::chrono::seconds(30);  // stops a broken test from hanging

// The operation's outcome as a failure or nothing, once it completes.
template <class T>
Started Start(const kelcore::async::Future<T>& future) {
  return future.Then([](const kelcore::async::Future<T>& done) { done.Get(); });
}
Started Generic(const Service& service) {
  return Start(OstrioDictionaryResource::GenericQuery(service, kelcore::ToU8Str("{ me { id } }"), {}));
}

// Every value the request has for the header, comma-joined: "" when absent, "a,a" when doubled.
std::string Values(const FakeRequestPtr& request, std::string_view name) {
  std::string values;
  for (const auto& [key, value] : request->headers) {
    if (key.View() == name) values += (values.empty() ? "" : ",") + value.ToStdString();
  }
  return values;
}

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Staging and development come from the debug database; production keeps its built-in suffix.
    ::setenv("OSTRIOLIB_DOMAIN_STAGING", ".staging.test", 1);
    ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.test", 1);
    service = MakeService(kEnvironmentDevelopment, "northwind media+Editor/25.1.77", "pv-1");
  }
  Service MakeService(EnvironmentType environment, const char* clientId, const char* preview, const char* token = "tok") {
    auto created = CreateOstrioService();
    created.Query<kelappsupport::cloudservice::ServiceBase>()->SetTransport(transport);
    created.Query<kelappsupport::cloudservice::ServiceBase>()->SetRetryScheduler(scheduler);
    EXPECT_EQ(created->Initialize(clientId, token, environment, preview, [counter = unauthenticated](auto&) { ++*counter; }), 0);
    return created;
  }
  // Answers the oldest pending request.
  FakeRequestPtr Answer(const std::string& body, int status = 200, kelnet::HeaderMap headers = {{"content-type", kJson}}) {
    auto request = transport->Take();
    if (request) transport->Answer(request, status, std::move(headers), body);
    return request;
  }

  std::shared_ptr<transport_test::FakeTransport> transport = std::make_shared<transport_test::FakeTransport>();
  std::shared_ptr<transport_test::FakeScheduler> scheduler = std::make_shared<transport_test::FakeScheduler>();
  std::shared_ptr<std::atomic<int>> unauthenticated = std::make_shared<std::atomic<int>>(0);
  Service service;
};

TEST_F(ServiceTest, EveryOperationSendsItsDocumentAndVariablesExactly) {
  const Guid kId("0a0a0a0a-0000-4000-8000-00000000000a");
  const std::string id = "\"" + kId.ToString() + "\"";
  const std::string filters = R"("queryFiles":{"assetType":"FILE","folderId":)" + id +
                              R"(},"queryFolders":{"assetType":"FOLDER","folderId":)" + id + "}}";
  const kelcore::U8Str cursor = kelcore::ToU8Str("Y3Vy");
  const std::vector<std::tuple<std::string, Started, std::string>> cases = {
      {"CurrentUser", Start(OstrioUser::LoadUser(service)), ""},
      {"Accounts", Start(OstrioAccountList::LoadAccountList(service)), R"({"page":{"first":100}})"},
      {"WorkspacesByAccountID", Start(OstrioWorkspaceList::LoadWorkspaceList(service, kId, 25, {})),
       R"({"page":{"first":25},"accountID":)" + id + "}"},
      {"WorkspaceCountByAccountID", Start(OstrioWorkspaceList::GetWorkspaceCount(service, kId)),
       R"({"page":{"first":0},"accountID":)" + id + "}"},
      {"ProjectsByWorkspaceID", Start(OstrioProjectList::LoadProjectList(service, kId, 10, cursor)),
       R"({"page":{"first":10,"after":"Y3Vy"},"workspaceID":)" + id + "}"},
      {"ProjectCountByWorkspaceID", Start(OstrioProjectList::GetProjectCount(service, kId)),
       R"({"page":{"first":0},"workspaceID":)" + id + "}"},
      {"GetFilesAndFolders", Start(OstrioAssets::LoadAssets(service, kId, 0, {}, 20, cursor)),
       R"({"pageFiles":{"first":20,"after":"Y3Vy"},"pageFolders":{"first":0},)" + filters},
      {"GetAssetCountsByFolderID", Start(OstrioAssets::GetAssetCounts(service, kId)),
       R"({"page":{"first":0},)" + filters},
  };
  for (const auto& [document, started, variables] : cases) {
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request) << document;
    EXPECT_EQ(request->body->View(), R"({"query":")" + KnownQuery(document) + "\"" +
                                         (variables.empty() ? "" : ",\"variables\":" + variables) + "}");
    EXPECT_TRUE(started.WaitFor(kHangGuard));
  }
}

TEST_F(ServiceTest, EndpointAndCommonHeadersFollowEnvironmentClientIdAndToken) {
  const std::string production = "https://api" + std::string(kProdDomain.View()) + "/graphql";
  // environment, client ID, preview value, token; the URL and the headers sent, as "content type |
  // client name | client version | preview | authorization" (empty: not sent).
  const std::vector<std::tuple<int, const char*, const char*, const char*, std::string, std::string>> cases = {
      {0, "Editor", "pv", "tok", production, "|Editor|||Bearer tok"},
      {1, "Name/Extra/Version", "pv", "Bearer abc", "https://api.staging.test/graphql", "|Name|Version||Bearer abc"},
      {2, "a+b/1.2", "", "t", "https://api.ostrio.test/graphql", "|a+b|1.2||Bearer t"},
      {2, "a+b/1.2", "pv", "t", "https://api.ostrio.test/graphql", "|a+b|1.2|pv|Bearer t"},
      {7, "x/y", "pv", "t", production, "|x|y||Bearer t"},
  };
  for (const auto& [environment, clientId, preview, token, url, headers] : cases) {
    auto started = Generic(MakeService(EnvironmentType(environment), clientId, preview, token));
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request) << clientId;
    EXPECT_EQ(request->url, url);
    std::string sent = Values(request, "content-type");
    for (const char* name : {"apollographql-client-name", "apollographql-client-version", "x-preview-environment",
                             "authorization"}) {
      sent += "|" + Values(request, name);
    }
    EXPECT_EQ(sent, kJson + headers) << clientId;
    EXPECT_TRUE(started.WaitFor(kHangGuard));
  }
}

TEST_F(ServiceTest, WhereTheTokenGoesHowManyAtOnceAndWhichFailuresAreRetried) {
  for (auto [url, authorization] : {std::pair{"https://api.ostrio.test/media/a/original.mp4", "Bearer tok"},
                                    {"https://media.ostrio.test/media/a/original.mp4?expires=1&signature=ab", ""},
                                    {"https://ostrio.test/media/a", ""}}) {
    auto started = Start(service->StreamingGet(url, [](auto&&...) {}, {}));
    auto request = Answer("", 404, {});
    ASSERT_TRUE(request);
    EXPECT_EQ(Values(request, "authorization"), authorization) << url;
    EXPECT_TRUE(started.WaitFor(kHangGuard));
  }
  // A refreshed token replaces the old one from the next request on (the service keeps
  // accepting the old one for a while, so only this shows a token that never changes).
  ASSERT_EQ(service->SetAccessToken(kelcore::ImmutableString("tok2")), 0);
  std::vector<Started> started;
  for (int i = 0; i < 40; ++i) started.push_back(Generic(service));
  EXPECT_EQ(transport->PendingCount(), 16u);
  while (auto request = Answer("{}")) EXPECT_EQ(Values(request, "authorization"), "Bearer tok2");
  for (auto& future : started) EXPECT_TRUE(future.WaitFor(kHangGuard));

  for (int status : {500, 501, 502, 503, 504, 505}) {
    auto query = Generic(service);
    ASSERT_TRUE(Answer("", status, {}));
    const bool retried = scheduler->RunNext() && Answer("{}");
    EXPECT_EQ(retried, status >= 502 && status <= 504) << status;
    EXPECT_TRUE(query.WaitFor(kHangGuard));
  }
}

TEST_F(ServiceTest, AnswersAreJudgedByStatusContentTypeAndGraphQLErrors) {
  // status, content type (null: none), body; the result, whether the service's handler heard of
  // an "unauthenticated" answer, a key the resource's dictionary holds afterwards ("": empty).
  const std::vector<std::tuple<int, const char*, const char*, kelcore::Result, bool, const char*>> cases = {
      {200, "application/json", R"({"errors":[],"data":{}})", 0, false, "data"},
      {200, kJson, R"({"errors":{"message":"unauthenticated"}})", 0, false, "errors"},
      {206, "application/vnd.api+json", R"({"data":{}})", 0, false, "data"},
      {200, kJson, "[1,2]", 0, false, ""},
      {200, kJson, "{\"data\":", 0, false, ""},
      {200, kJson, R"({"errors":[7,{"message":"x"},{"message":"unauthenticated"}],"data":null})",
       kelcore::kErrorUnauthenticated, true, "errors"},
      {200, kJson, R"({"errors":[{"message":"Unauthenticated"}]})", kelcore::kErrorRequestFailed, false, "errors"},
      {200, kJson, R"({"errors":[{"message":"not found"}],"data":{"a":1}})", kelcore::kErrorRequestFailed, false, "data"},
      {200, nullptr, R"({"data":{}})", kelcore::kErrorUnsupportedContentType, false, ""},
      {500, kJson, R"({"errors":[{"message":"unauthenticated"}]})", kelcore::kErrorRequestFailed, false, ""},
      {300, kJson, R"({"data":{}})", kelcore::kErrorRequestFailed, false, ""},
      {199, kJson, R"({"data":{}})", kelcore::kErrorRequestFailed, false, ""},
  };
  for (const auto& [status, contentType, body, result, notified, keyKept] : cases) {
    SCOPED_TRACE(std::to_string(status) + " " + body);
    const int notifiedBefore = *unauthenticated;
    auto resource = OstrioDictionaryResource::CreateClassRef();
    auto query = service->Query(kelcore::ToU8Str("{ me { id } }"), {});
    ASSERT_TRUE(Answer(body, status, contentType ? kelnet::HeaderMap{{"content-type", contentType}} : kelnet::HeaderMap{}));
    ASSERT_TRUE(query.WaitFor(kHangGuard));
    EXPECT_EQ(resource->SetServerResponse(query.Get(), service.Query<kelappsupport::cloudservice::IService>()), result);
    EXPECT_EQ(*unauthenticated - notifiedBefore, notified ? 1 : 0);
    EXPECT_TRUE(*keyKept ? resource->GetDictionary().Contains(keyKept) : resource->GetDictionary().empty());
  }
}

TEST_F(ServiceTest, FailuresNameTheirPlaceAndExpression) {
  // How the operation starts, the answer (null: the service double answers with no response at
  // all); the failure's result, source path, line (0: not pinned), function and expression.
  const char* generic = "ostriolib::OstrioDictionaryResource::GenericQuery::<lambda_1>::operator ()";
  const std::vector<std::tuple<std::function<Started(const Service&)>, const char*, kelcore::Result, const char*, int,
                               const char*, const char*>>
      cases = {
          {Generic, nullptr, kelcore::kErrorPreconditionFailed, "service/src/OstrioDictionaryResource", 51, generic,
           "!inResponse"},
          {Generic, R"({"errors":[{"message":"boom"}]})", kelcore::kErrorRequestFailed,
           "service/src/OstrioDictionaryResource", 54, generic, "kelcore::ResultFailed(result)"},
          {[](auto& s) { return Start(OstrioUser::LoadUser(s)); }, nullptr, kelcore::kErrorPreconditionFailed,
           "queries/src/OstrioUser", 0, "ostriolib::OstrioUser::LoadUser::<lambda_1>::operator ()", "!inResponse"},
          {[](auto& s) { return Start(OstrioAssets::GetAssetCounts(s, Guid())); }, "{}", kelcore::kErrorFailed,
           "queries/src/OstrioAssets", 0, "ostriolib::OstrioAssets::GetAssetCounts::<lambda_1>::operator ()",
           "data.empty()"},
      };
  auto silent = kelcore::classref::AllocateClassInstance<FakeService>();
  silent->answerNothing = true;
  for (const auto& [start, body, result, path, line, function, expression] : cases) {
    auto started = start(body ? service : Service(silent));
    ASSERT_TRUE(!body || Answer(body));
    const auto failure = Outcome(started);
    EXPECT_EQ(failure.GetResult(), result) << function;
    EXPECT_EQ(failure.SourcePath(), path);
    EXPECT_EQ(line ? failure.Line() : 0, line);
    EXPECT_EQ(failure.Function(), function);
    EXPECT_EQ(failure.Expression(), expression);
  }
}

TEST_F(ServiceTest, RefusedLoadsFailAtOnceAndSendNothing) {
  const Service none;
  for (const Started& refused : {Generic(none), Start(OstrioUser::LoadUser(none)),
                                 Start(OstrioWorkspaceList::GetWorkspaceCount(none, Guid())),
                                 Start(OstrioWorkspaceList::LoadWorkspaceList(service, Guid(), 0, {})),
                                 Start(OstrioProjectList::LoadProjectList(service, Guid(), 0, {})),
                                 Start(OstrioAssets::LoadAssets(service, Guid(), 0, {}, 0, {}))}) {
    ASSERT_TRUE(refused.WaitFor(kHangGuard));
    EXPECT_EQ(refused.GetResult(), kelcore::kErrorServiceUnavailable);
  }
  EXPECT_TRUE(transport->all.empty());
}

// Records from sparse and odd answers (missing keys, wrong kinds, cursors that must not be
// followed, integers in every JSON form), each written as one line of text. The reading rules are
// shared by every family; the families' fields against real records are the command line's tests.
std::string Id(const Guid& id) { return id.IsNil() ? "nil" : id.ToString().substr(0, 2); }
std::string Str(const kelcore::U8Str& text) { return std::string(kelcore::AsStringView(text)); }
std::string Head(const OstrioObject& o) { return Id(o.id) + "|" + o.typeName.ToStdString() + "|" + Str(o.name); }

TEST(RecordsTest, RecordsTakeWhatTheAnswerHoldsAndDefaultsForTheRest) {
  const auto accounts = [](const Service& s) {
    std::string out;
    for (const Account& a : OstrioAccountList::LoadAccountList(s).Get()->GetAccountList()) {
      out += Head(a) + "|" + std::to_string(a.version) + ";";
    }
    return out;
  };
  const auto workspaces = [](const Service& s) {
    const WorkspaceList list = OstrioWorkspaceList::LoadWorkspaceList(s, {}, 5, {}).Get()->GetWorkspaceList();
    std::string out;
    for (const auto& w : list.workspaces) out += Head(w) + ";";
    return out + "next=" + Str(list.nextCursor);
  };
  const std::string g1 = "11111111-1111-4111-8111-111111111111", g2 = "22222222-2222-4222-8222-222222222222";
  const std::vector<std::tuple<std::function<std::string(const Service&)>, std::string, const char*>> cases = {
      {accounts,
       R"({"data":{"me":{"accounts":{"nodes":[{"account":{"id":")" + g1 +
           R"(","__typename":"Account","displayName":"A","version":3.9}},{"account":{}},{"x":1},"s",)"
           R"({"account":{"id":")" + g2 + R"(","version":"7","displayName":5}},{"account":{"displayName":"C","version":true}},)"
           R"({"account":{"id":"not-a-guid","version":{}}},{"account":{"version":-4.7}},)"
           R"({"account":{"version":99999999999}},{"account":{"version":"-99999999999999999999999"}},)"
           R"({"account":{"version":1e300}}]}}}})",
       "11|Account|A|3;22|||7;nil||C|1;nil|||0;nil|||-4;nil|||2147483647;nil|||-2147483648;nil|||2147483647;"},
      {workspaces,
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","name":"W"},{},{"name":"no id"}],"pageInfo":{"endCursor":"c9","hasNextPage":false}}}}})",
       "11||W;nil||no id;next="},
      {workspaces,
       R"({"data":{"account":{"workspaces":{"nodes":[{"id":")" + g1 +
           R"(","__typename":"Workspace","name":"W"}],"pageInfo":{"endCursor":"c9","hasNextPage":true}}}}})",
       "11|Workspace|W;next=c9"},
      {workspaces, R"({"data":{"account":{"workspaces":{"pageInfo":{"endCursor":"c9","hasNextPage":"true"}}}}})",
       "next="},
      {[](const Service& s) { return std::to_string(OstrioProjectList::GetProjectCount(s, {}).Get()); },
       R"({"data":{"workspace":{"projects":{"totalCount":7}}}})", "7"},
  };
  auto service = kelcore::classref::AllocateClassInstance<FakeService>();
  for (const auto& [read, body, expected] : cases) {
    service->answer = body;
    EXPECT_EQ(read(service), expected) << body;
  }
}

}  // namespace
}  // namespace ostriolib
