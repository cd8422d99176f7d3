#pragma once
// One emulator per test process, a service that trusts it, and its request log and faults.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "EmulatorProcess.h"
#include "TransportTestSupport.h"
#include "kelappsupport/ServiceBase.h"
#include "kelcore/Dictionary.h"

namespace transport_test {

class EmulatorFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!emulator) emulator = EmulatorProcess::Start();
    // The platform reads no product setting: every request here names the emulator's CA itself.
    ::unsetenv("OSTRIOLIB_CABUNDLE");
  }

  void SetUp() override {
    ASSERT_TRUE(emulator) << "the emulator did not start";
    emulator->ControlDelete("faults");
    emulator->ControlDelete("requests");
    service.ConfigureCABundle(emulator->CaPath());
  }

  // The request log, oldest first.
  static std::vector<kelcore::utility::DictionaryValue> Requests() {
    const std::string text = emulator->ControlGet("requests");
    auto parsed = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
    return parsed ? parsed->AsDictionary().GetArray("requests") : std::vector<kelcore::utility::DictionaryValue>{};
  }
  static void Fault(const std::string& json) { emulator->ControlPost("faults", json); }
  static kelcore::ImmutableString Url(const std::string& path) { return kelcore::ImmutableString(emulator->ApiUrl(path)); }
  // Per-request options that trust the emulator's CA, for kelnet without a service.
  static kelnet::Configuration Trusted() {
    kelnet::Configuration configuration;
    configuration.caBundlePath = emulator->CaPath();
    return configuration;
  }

  kelappsupport::cloudservice::ServiceBase service;
  static inline std::unique_ptr<EmulatorProcess> emulator;
};

}  // namespace transport_test
