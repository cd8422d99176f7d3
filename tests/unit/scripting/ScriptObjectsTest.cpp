// The script objects' rules that the Node suites cannot pin down deterministically: the pending
// refresh of one client object, a refresh that outlives its object, and events that reflect the
// state when they are handled. The client singleton is real and signed in through a callback URL
// (memory keychain); each object's auth manager is the test's.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "ClientDoubles.h"
#include "OstrioAuthEventObject.h"
#include "OstrioClientObject.h"
#include "ScratchFolders.h"
#include "ScriptingDoubles.h"
#include "kelcore/Executor.h"
#include "kelcore/Messaging.h"
#include "kelcore/Strings.h"
#include "kelscripting/ObjectFactory.h"

namespace ostriolib {
namespace {

using kelscripting::RecordingPromise;
using kelscripting::RecordingScriptEngine;
using State = RecordingPromise::State;

class ScriptObjectsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The scheme registration writes below XDG_DATA_HOME and XDG_CONFIG_HOME.
    scratch = std::make_unique<TemporaryDirectory>();
    ::setenv("XDG_DATA_HOME", (scratch->Path() / "data").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (scratch->Path() / "config").c_str(), 1);
    ::setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
    // The client holds the auth manager it is initialised with.
    OstrioClientObject::SetupOstrioAuth();
    ASSERT_EQ(GetOstrioAuthManager()->Initialize(kelcore::ImmutableString("corvane+ScriptingTest/1.0.1"),
                                                 kelcore::ImmutableString("ostrio-unit"), kEnvironmentDevelopment, {}),
              0);
  }
  static void TearDownTestSuite() { scratch.reset(); }

  void SetUp() override {
    kelscripting::InstallScriptEngine(engine);
    kelcore::async::InstallMainThreadDispatcher(mainLoop);
    OstrioClientObject::SetupOstrioAuth();
    // Far from expiry: the client is signed in and stays so.
    ASSERT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(
                  "ostrio-unit://ostrio#expires=4102444800&refreshToken=r&token=Bearer%20t&userId=u")),
              0);
    ASSERT_TRUE(OstrioClientObject::BoundClient()->IsOstrioUserSignedIn());
  }
  void TearDown() override {
    kelcore::async::UninstallMainThreadDispatcher();
    kelscripting::InstallScriptEngine(nullptr);
  }

  static inline std::unique_ptr<TemporaryDirectory> scratch;

  std::shared_ptr<OstrioClientObject> NewObject() {
    return kelscripting::ObjectFactory::Make<OstrioClientObject>(
        engine, kelcore::classref::InterfaceRef<IOstrioAuthManager>(auth));
  }

  std::shared_ptr<RecordingScriptEngine> engine = std::make_shared<RecordingScriptEngine>();
  std::shared_ptr<kelcore::async::MainThreadRunLoop> mainLoop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  std::shared_ptr<FakeAuthManager> auth = std::make_shared<FakeAuthManager>();
};

TEST_F(ScriptObjectsTest, OneRefreshPerObjectAtATimeAndOnlyWhileItRuns) {
  auto object = NewObject();
  auto first = RecordingScriptEngine::Recorded(object->RefreshAccessToken());
  auto second = RecordingScriptEngine::Recorded(object->RefreshAccessToken());
  EXPECT_EQ(auth->TokenRequestCount(), 1u);
  EXPECT_EQ(first->GetState(), State::Pending);
  EXPECT_EQ(second->GetState(), State::Resolved);  // at once, with the token current then

  auth->AnswerToken("fresh");
  ASSERT_EQ(first->GetState(), State::Resolved);
  EXPECT_EQ(first->Value().AsString(), "fresh");

  // Settled, the marker is gone: the next call asks again, and a failure reads as the empty token.
  auto third = RecordingScriptEngine::Recorded(object->RefreshAccessToken());
  EXPECT_EQ(auth->TokenRequestCount(), 2u);
  auth->FailToken(kelcore::kErrorRefreshRejected);
  ASSERT_EQ(third->GetState(), State::Resolved);
  EXPECT_EQ(third->Value().AsString(), "");
  object->RefreshAccessToken();
  EXPECT_EQ(auth->TokenRequestCount(), 3u);
}

TEST_F(ScriptObjectsTest, ARefreshThatOutlivesItsObjectRejectsItsPromise) {
  auto object = NewObject();
  auto promise = RecordingScriptEngine::Recorded(object->RefreshAccessToken());
  object.reset();
  auth->AnswerToken("fresh");
  ASSERT_EQ(promise->GetState(), State::Failed);
  EXPECT_EQ(promise->Message(), "OstrioClientObject no longer valid");
  EXPECT_EQ(promise->Code(), kelcore::kErrorPreconditionFailed);
  EXPECT_EQ(promise->Settlements(), 1);
}

TEST_F(ScriptObjectsTest, EventsReflectTheStateWhenHandledAndNeedALiveClient) {
  auto client = OstrioClientObject::BoundClient();
  const auto station = client->GetStationID();
  // A change posted while signed in, handled only after the sign-out below: it reads the state
  // then, so both events say signed out.
  kelcore::messaging::AsyncBroadcastMessagePtr(
      station, std::make_unique<OstrioUserSignedInChangedMessage>(std::weak_ptr<OstrioClient>(client)));
  ASSERT_GE(client->SignOutOstrioUser(), 0);
  mainLoop->RunPending();
  // A message whose client is gone queues nothing.
  kelcore::messaging::BroadcastMessageOnMainThread(station, OstrioUserSignedInChangedMessage(std::weak_ptr<OstrioClient>()));
  EXPECT_EQ(engine->Events(), (std::vector<std::string>{"OstrioAuthEventObject.SignedOut",
                                                        "OstrioAuthEventObject.SignedOut"}));
}

}  // namespace
}  // namespace ostriolib
