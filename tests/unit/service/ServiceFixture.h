#pragma once
// A real OstrioService over the recording transport: a test starts an operation, answers the
// request it sent, and reads the outcome.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>

#include "TransportTestSupport.h"
#include "kelappsupport/ServiceBase.h"
#include "ostriolib/OstrioDictionaryResource.h"

namespace service_test {

using kelcore::classref::InterfaceRef;
using ostriolib::IOstrioService;
using transport_test::FakeRequestPtr;
using Started = kelcore::async::Future<void>;

constexpr const char* kJson = "application/json; charset=utf-8";

// The operation's outcome as a failure or nothing, once it completes.
template <class T>
Started Start(const kelcore::async::Future<T>& future) {
  return future.Then([](const kelcore::async::Future<T>& done) { done.Get(); });
}

class ServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    // Staging and development come from the debug database; production keeps its built-in suffix.
    ::setenv("OSTRIOLIB_DOMAIN_STAGING", ".staging.test", 1);
    ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.test", 1);
    service = MakeService(ostriolib::kEnvironmentDevelopment, "northwind media+Editor/25.1.77", "pv-1");
  }

  InterfaceRef<IOstrioService> MakeService(ostriolib::EnvironmentType environment, const char* clientId,
                                           const char* preview, const char* token = "tok") {
    auto created = ostriolib::CreateOstrioService();
    created.Query<kelappsupport::cloudservice::ServiceBase>()->SetTransport(transport);
    auto counter = unauthenticated;
    EXPECT_EQ(created->Initialize(clientId, token, environment, preview, [counter](auto&) { ++*counter; }), 0);
    return created;
  }

  // Answers the oldest pending request.
  FakeRequestPtr Answer(const std::string& body, int status = 200, kelnet::HeaderMap headers = {{"content-type", kJson}}) {
    auto request = transport->Take();
    if (request) transport->Answer(request, status, std::move(headers), body);
    return request;
  }

  // Bounded, so that a lost continuation fails the test instead of hanging it.
  template <class T>
  static bool Settle(const kelcore::async::Future<T>& future) {
    const bool ready = future.WaitFor(std::chrono::seconds(30));
    EXPECT_TRUE(ready) << "future never completed";
    return ready;
  }

  std::shared_ptr<transport_test::FakeTransport> transport = std::make_shared<transport_test::FakeTransport>();
  std::shared_ptr<std::atomic<int>> unauthenticated = std::make_shared<std::atomic<int>>(0);
  InterfaceRef<IOstrioService> service;
};

}  // namespace service_test
