// The script objects' rules that the Node suites cannot pin down deterministically: the pending
// refresh of one client object, a refresh that outlives its object, and events that reflect the
// state when they are handled. The client singleton is real and signed in through a callback URL
// (memory keychain); each object's auth manager is the test's.

#include <gtest/gtest.h>

#include "ClientDoubles.h"
#include "OstrioAuthEventObject.h"
#include "OstrioClientObject.h"
#include "ScratchFolders.h"
#include "ScriptingDoubles.h"
#include "kelcore/Executor.h"
#include "kelcore/Messaging.h"
#include "kelscripting/ObjectFactory.h"

namespace ostriolib {
namespace {

using Recorded = kelscripting::RecordingScriptEngine;

class ScriptObjectsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { BeginClientProcess(scratch.Path(), "ScriptingTest", "ostrio-unit"); }
  void SetUp() override {
    kelscripting::InstallScriptEngine(engine);
    kelcore::async::InstallMainThreadDispatcher(mainLoop);
    OstrioClientObject::SetupOstrioAuth();
    // Far from expiry: the client is signed in and stays so.
    ASSERT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(
                  "ostrio-unit://ostrio#expires=4102444800&refreshToken=r&token=Bearer%20t&userId=u")),
              0);
  }
  void TearDown() override {
    kelcore::async::UninstallMainThreadDispatcher();
    kelscripting::InstallScriptEngine(nullptr);
  }

  static inline TemporaryDirectory scratch;
  std::shared_ptr<Recorded> engine = std::make_shared<Recorded>();
  std::shared_ptr<kelcore::async::MainThreadRunLoop> mainLoop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  std::shared_ptr<FakeAuthManager> auth = std::make_shared<FakeAuthManager>();
};

TEST_F(ScriptObjectsTest, OneRefreshPerObjectAtATimeAndOnlyWhileItRuns) {
  auto object = kelscripting::ObjectFactory::Make<OstrioClientObject>(
      engine, kelcore::classref::InterfaceRef<IOstrioAuthManager>(auth));
  const auto first = object->RefreshAccessToken();
  EXPECT_EQ(Recorded::Settled(object->RefreshAccessToken()), "resolved ");  // at once, with the token current then
  ASSERT_EQ(auth->TokenRequestCount(), 1u);
  EXPECT_EQ(Recorded::Settled(first), "pending");
  auth->AnswerToken("fresh");
  EXPECT_EQ(Recorded::Settled(first), "resolved fresh");

  // Settled, the marker is gone: the next call asks again. A refresh that outlives its object
  // rejects its promise.
  const auto orphan = object->RefreshAccessToken();
  ASSERT_EQ(auth->TokenRequestCount(), 2u);
  object.reset();
  auth->AnswerToken("late");
  EXPECT_EQ(Recorded::Settled(orphan),
            "failed " + std::to_string(kelcore::kErrorPreconditionFailed) + " OstrioClientObject no longer valid");
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
  EXPECT_EQ(engine->events, (std::vector<std::string>{"OstrioAuthEventObject.SignedOut",
                                                        "OstrioAuthEventObject.SignedOut"}));
}

}  // namespace
}  // namespace ostriolib
