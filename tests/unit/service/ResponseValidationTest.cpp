// How an answer is judged (status, content type, GraphQL errors, "unauthenticated" reaching the
// service's handler), the places failures say they come from, and loads refused before sending.

#include <gtest/gtest.h>

#include "FakeService.h"
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

TEST_F(ServiceFixture, AnswersAreJudgedByStatusContentTypeAndGraphQLErrors) {
  struct Case {
    int status;
    const char *contentType, *body;  // contentType null: no such header
    kelcore::Result result;
    bool notified;        // the service's handler ran because of this answer
    const char* keyKept;  // a key the resource's dictionary holds afterwards, "" for an empty one
  };
  const std::vector<Case> cases = {
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
      {200, "text/html", R"({"data":{}})", kelcore::kErrorUnsupportedContentType, false, ""},
      {500, kJson, R"({"errors":[{"message":"unauthenticated"}]})", kelcore::kErrorRequestFailed, false, ""},
      {302, kJson, R"({"data":{}})", kelcore::kErrorRequestFailed, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.body);
    const int notifiedBefore = *unauthenticated;
    auto resource = OstrioDictionaryResource::CreateClassRef();
    auto query = service->Query(kelcore::ToU8Str("{ me { id } }"), {});
    kelnet::HeaderMap headers;
    if (c.contentType) headers.emplace("content-type", c.contentType);
    ASSERT_TRUE(Answer(c.body, c.status, headers));
    ASSERT_TRUE(Settle(query));
    EXPECT_EQ(resource->SetServerResponse(query.Get(), service.Query<kelappsupport::cloudservice::IService>()), c.result);
    EXPECT_EQ(*unauthenticated - notifiedBefore, c.notified ? 1 : 0);
    const auto json = kelcore::AsStringView(resource->GetJSON());
    EXPECT_EQ(*c.keyKept ? resource->GetDictionary().Contains(c.keyKept) : resource->GetDictionary().empty(), true)
        << json;
    EXPECT_EQ(resource->GetResponse(), query.Get());
  }
}

TEST_F(ServiceFixture, FailuresNameTheirPlaceAndExpression) {
  struct Case {
    std::function<Started(const InterfaceRef<IOstrioService>&)> start;
    const char* body;  // null: the service double answers with no response at all
    kelcore::Result result;
    const char* path;
    int line;  // 0: not pinned
    const char *function, *expression;
  };
  const auto generic = [](auto& s) {
    return Start(OstrioDictionaryResource::GenericQuery(s, kelcore::ToU8Str("{ x }"), {}));
  };
  const char* genericName = "ostriolib::OstrioDictionaryResource::GenericQuery::<lambda_1>::operator ()";
  const std::vector<Case> cases = {
      {generic, nullptr, kelcore::kErrorPreconditionFailed, "service/src/OstrioDictionaryResource", 51, genericName,
       "!inResponse"},
      {generic, R"({"errors":[{"message":"boom"}]})", kelcore::kErrorRequestFailed,
       "service/src/OstrioDictionaryResource", 54, genericName, "kelcore::ResultFailed(result)"},
      {[](auto& s) { return Start(OstrioUser::LoadUser(s)); }, nullptr, kelcore::kErrorPreconditionFailed,
       "queries/src/OstrioUser", 0, "ostriolib::OstrioUser::LoadUser::<lambda_1>::operator ()", "!inResponse"},
      {[](auto& s) { return Start(OstrioAccountList::LoadAccountList(s)); },
       R"({"errors":[{"message":"unauthenticated"}]})", kelcore::kErrorUnauthenticated, "queries/src/OstrioAccountList",
       0, "ostriolib::OstrioAccountList::LoadAccountList::<lambda_1>::operator ()", "!kelcore::ResultSucceeded(result)"},
      {[](auto& s) { return Start(OstrioAssets::GetAssetCounts(s, Guid())); }, "{}", kelcore::kErrorFailed,
       "queries/src/OstrioAssets", 0, "ostriolib::OstrioAssets::GetAssetCounts::<lambda_1>::operator ()",
       "data.empty()"},
  };
  auto scripted = kelcore::classref::AllocateClassInstance<FakeService>();
  scripted->answerNothing = true;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.function);
    auto started = c.start(c.body ? service : InterfaceRef<IOstrioService>(scripted));
    if (c.body) {
      ASSERT_TRUE(Answer(c.body));
    }
    ASSERT_TRUE(Settle(started));
    try {
      started.Get();
      ADD_FAILURE() << "no failure";
    } catch (const kelcore::kel_exception& e) {
      EXPECT_EQ(e.GetResult(), c.result);
      EXPECT_EQ(e.SourcePath(), c.path);
      EXPECT_EQ(c.line ? e.Line() : 0, c.line);
      EXPECT_EQ(e.Function(), c.function);
      EXPECT_EQ(e.Expression(), c.expression);
    }
  }
}

TEST_F(ServiceFixture, RefusedLoadsFailAtOnceAndSendNothing) {
  const InterfaceRef<IOstrioService> none;
  const kelcore::U8Str noCursor;
  for (const Started& refused : {
           Start(OstrioDictionaryResource::GenericQuery(none, kelcore::ToU8Str("{ x }"), {})),
           Start(OstrioUser::LoadUser(none)),
           Start(OstrioAccountList::LoadAccountList(none)),
           Start(OstrioWorkspaceList::LoadWorkspaceList(service, Guid(), 0, noCursor)),
           Start(OstrioWorkspaceList::GetWorkspaceCount(none, Guid())),
           Start(OstrioProjectList::LoadProjectList(service, Guid(), 0, noCursor)),
           Start(OstrioAssets::LoadAssets(service, Guid(), 0, noCursor, 0, noCursor)),
           Start(OstrioAssets::LoadAssets(service, Guid(), -1, noCursor, -5, noCursor)),
           Start(OstrioAssets::GetAssetCounts(none, Guid())),
       }) {
    ASSERT_TRUE(Settle(refused));
    EXPECT_EQ(refused.GetResult(), kelcore::kErrorServiceUnavailable);
  }
  EXPECT_TRUE(transport->all.empty());
}

}  // namespace
}  // namespace service_test
