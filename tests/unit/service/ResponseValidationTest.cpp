// How an answer is judged: status, content type, GraphQL errors, "unauthenticated" reaching the
// service's handler; and the places the failures say they come from.

#include <gtest/gtest.h>

#include "ScriptedOstrioService.h"
#include "ServiceFixture.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace service_test {
namespace {

using kelcore::utility::Guid;
using ostriolib::OstrioDictionaryResource;

struct ValidationCase {
  const char* name;
  int status;
  const char* contentType;  // null: no content-type header
  const char* body;
  kelcore::Result result;
  bool notified;        // the service's handler ran because of this answer
  const char* keyKept;  // a top-level key the resource's dictionary still holds ("" for none)
};

TEST_F(ServiceFixture, AnswersAreJudgedByStatusContentTypeAndGraphQLErrors) {
  const std::vector<ValidationCase> cases = {
      {"data", 200, kJson, R"({"data":{"me":{}}})", 0, false, "data"},
      {"errors empty", 200, "application/json", R"({"errors":[],"data":{}})", 0, false, "data"},
      {"errors not an array", 200, kJson, R"({"errors":{"message":"unauthenticated"}})", 0, false, "errors"},
      {"json api type", 206, "application/vnd.api+json", R"({"data":{}})", 0, false, "data"},
      {"not an object", 200, kJson, "[1,2]", 0, false, ""},
      {"not json", 200, kJson, "{\"data\":", 0, false, ""},
      {"unauthenticated second", 200, kJson, R"({"errors":[7,{"message":"x"},{"message":"unauthenticated"}],"data":null})",
       kelcore::kErrorUnauthenticated, true, "errors"},
      {"other case", 200, kJson, R"({"errors":[{"message":"Unauthenticated"}]})", kelcore::kErrorRequestFailed, false,
       "errors"},
      {"other errors", 200, kJson, R"({"errors":[{"message":"not found"}],"data":{"a":1}})",
       kelcore::kErrorRequestFailed, false, "data"},
      {"no content type", 200, nullptr, R"({"data":{}})", kelcore::kErrorUnsupportedContentType, false, ""},
      {"html", 200, "text/html", R"({"data":{}})", kelcore::kErrorUnsupportedContentType, false, ""},
      {"server error", 500, kJson, R"({"errors":[{"message":"unauthenticated"}]})", kelcore::kErrorRequestFailed,
       false, ""},
      {"redirect", 302, kJson, R"({"data":{}})", kelcore::kErrorRequestFailed, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const int notifiedBefore = *unauthenticated;
    auto resource = OstrioDictionaryResource::CreateClassRef();
    auto query = service->Query(kelcore::ToU8Str("{ me { id } }"), {});
    kelnet::HeaderMap headers;
    if (c.contentType) headers.emplace("content-type", c.contentType);
    ASSERT_TRUE(Answer(c.body, c.status, headers));
    ASSERT_TRUE(Settle(query));
    EXPECT_EQ(resource->SetServerResponse(query.Get(), service.Query<kelappsupport::cloudservice::IService>()), c.result);
    EXPECT_EQ(*unauthenticated - notifiedBefore, c.notified ? 1 : 0);
    const auto dictionary = resource->GetDictionary();
    if (*c.keyKept) {
      EXPECT_TRUE(dictionary.Contains(c.keyKept)) << kelcore::AsStringView(resource->GetJSON());
    } else {
      EXPECT_TRUE(dictionary.empty()) << kelcore::AsStringView(resource->GetJSON());
    }
    EXPECT_EQ(resource->GetResponse(), query.Get());
  }
}

struct SiteCase {
  const char* name;
  std::function<kelcore::async::Future<void>(const InterfaceRef<IOstrioService>&)> start;
  bool scripted;  // answered by the scripted service with a null response
  const char* body;
  kelcore::Result result;
  const char* path;
  int line;  // 0: not pinned
  const char* function;
  const char* expression;
};

template <class T>
kelcore::async::Future<void> Done(const kelcore::async::Future<T>& future) {
  return future.Then([](const kelcore::async::Future<T>& done) { done.Get(); });
}

TEST_F(ServiceFixture, FailuresNameTheirPlaceAndExpression) {
  using namespace ostriolib;
  const auto generic = [](auto& s) { return Done(OstrioDictionaryResource::GenericQuery(s, kelcore::ToU8Str("{ x }"), {})); };
  const std::vector<SiteCase> cases = {
      {"generic, no response", generic, true, nullptr, kelcore::kErrorPreconditionFailed,
       "service/src/OstrioDictionaryResource", 51,
       "ostriolib::OstrioDictionaryResource::GenericQuery::<lambda_1>::operator ()", "!inResponse"},
      {"generic, rejected", generic, false, R"({"errors":[{"message":"boom"}]})", kelcore::kErrorRequestFailed,
       "service/src/OstrioDictionaryResource", 54,
       "ostriolib::OstrioDictionaryResource::GenericQuery::<lambda_1>::operator ()", "kelcore::ResultFailed(result)"},
      {"user, no response", [](auto& s) { return Done(OstrioUser::LoadUser(s)); }, true, nullptr,
       kelcore::kErrorPreconditionFailed, "queries/src/OstrioUser", 0,
       "ostriolib::OstrioUser::LoadUser::<lambda_1>::operator ()", "!inResponse"},
      {"accounts, unauthenticated", [](auto& s) { return Done(OstrioAccountList::LoadAccountList(s)); }, false,
       R"({"errors":[{"message":"unauthenticated"}]})", kelcore::kErrorUnauthenticated,
       "queries/src/OstrioAccountList", 0, "ostriolib::OstrioAccountList::LoadAccountList::<lambda_1>::operator ()",
       "!kelcore::ResultSucceeded(result)"},
      {"workspace count, empty data", [](auto& s) { return Done(OstrioWorkspaceList::GetWorkspaceCount(s, Guid())); },
       false, R"({"data":{}})", kelcore::kErrorFailed, "queries/src/OstrioWorkspaceList", 0,
       "ostriolib::OstrioWorkspaceList::GetWorkspaceCount::<lambda_1>::operator ()", "data.empty()"},
      {"asset counts, no data", [](auto& s) { return Done(OstrioAssets::GetAssetCounts(s, Guid())); }, false, "{}",
       kelcore::kErrorFailed, "queries/src/OstrioAssets", 0,
       "ostriolib::OstrioAssets::GetAssetCounts::<lambda_1>::operator ()", "data.empty()"},
  };
  auto scripted = kelcore::classref::AllocateClassInstance<ScriptedOstrioService>();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto done = c.start(c.scripted ? InterfaceRef<IOstrioService>(scripted) : service);
    if (!c.scripted) {
      ASSERT_TRUE(Answer(c.body));
    }
    ASSERT_TRUE(Settle(done));
    try {
      done.Get();
      ADD_FAILURE() << "no failure";
    } catch (const kelcore::kel_exception& e) {
      EXPECT_EQ(e.GetResult(), c.result);
      EXPECT_EQ(e.SourcePath(), c.path);
      if (c.line) {
        EXPECT_EQ(e.Line(), c.line);
      }
      EXPECT_EQ(e.Function(), c.function);
      EXPECT_EQ(e.Expression(), c.expression);
    }
  }
}

TEST_F(ServiceFixture, RefusedLoadsFailAtOnceAndSendNothing) {
  using namespace ostriolib;
  const InterfaceRef<IOstrioService> none;
  const kelcore::U8Str noCursor;
  const std::vector<kelcore::async::Future<void>> refused = {
      Done(OstrioDictionaryResource::GenericQuery(none, kelcore::ToU8Str("{ x }"), {})),
      Done(OstrioUser::LoadUser(none)),
      Done(OstrioAccountList::LoadAccountList(none)),
      Done(OstrioWorkspaceList::LoadWorkspaceList(service, Guid(), 0, noCursor)),
      Done(OstrioWorkspaceList::GetWorkspaceCount(none, Guid())),
      Done(OstrioProjectList::LoadProjectList(service, Guid(), -1, noCursor)),
      Done(OstrioAssets::LoadAssets(service, Guid(), 0, noCursor, -5, noCursor)),
      Done(OstrioAssets::GetAssetCounts(none, Guid())),
  };
  for (const auto& future : refused) {
    ASSERT_TRUE(Settle(future));
    EXPECT_EQ(future.GetResult(), kelcore::kErrorServiceUnavailable);
  }
  EXPECT_TRUE(transport->all.empty());
}

}  // namespace
}  // namespace service_test
