#pragma once
// One emulator per test process, and the small helpers the transport tests share.

#include <gtest/gtest.h>

#include <cstdlib>
#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "EmulatorProcess.h"
#include "kelappsupport/ServiceBase.h"
#include "kelcore/Dictionary.h"
#include "TransportTestSupport.h"

namespace transport_test {

class EmulatorFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!emulator) emulator = EmulatorProcess::Start();
    // The platform reads no product setting: every request here names the emulator's CA itself.
    ::unsetenv("OSTRIOLIB_CABUNDLE");
  }
  static void TearDownTestSuite() { emulator.reset(); }

  void SetUp() override {
    ASSERT_TRUE(emulator) << "the emulator did not start";
    emulator->ControlDelete("faults");
    emulator->ControlDelete("requests");
  }

  // The request log, oldest first.
  static std::vector<kelcore::utility::DictionaryValue> Requests() {
    const std::string text = emulator->ControlGet("requests");
    auto parsed = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
    if (!parsed) return {};
    return parsed->AsDictionary().GetArray("requests");
  }

  static void Fault(const std::string& json) { emulator->ControlPost("faults", json); }

  // Per-request options that trust the emulator's CA.
  static kelnet::Configuration Trusted() {
    kelnet::Configuration configuration;
    configuration.caBundlePath = emulator->CaPath();
    return configuration;
  }

  static inline std::unique_ptr<EmulatorProcess> emulator;
};

// The outcome of one request, awaited by the test thread.
struct Awaited {
  std::promise<std::shared_ptr<kelnet::Response>> promise;
  std::future<std::shared_ptr<kelnet::Response>> future = promise.get_future();
  kelnet::Completion Completion() {
    return [this](const kelcore::utility::Guid&, const std::shared_ptr<kelnet::Response>& response) {
      promise.set_value(response);
    };
  }
  // Bounded so that a lost completion fails the test instead of hanging it.
  std::shared_ptr<kelnet::Response> Get() {
    if (future.wait_for(std::chrono::minutes(5)) != std::future_status::ready) {
      ADD_FAILURE() << "request never completed";
      return nullptr;
    }
    return future.get();
  }
};

}  // namespace transport_test
