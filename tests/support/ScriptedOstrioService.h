#pragma once
// An IOstrioService that answers every query with the response the test scripted (null included,
// which the real service never hands on) and keeps what it was asked.

#include <memory>

#include "kelcore/Future.h"
#include "ostriolib/IOstrioService.h"

class ScriptedOstrioService : public ostriolib::IOstrioService {
  KEL_CLASS_REGISTRATION(ScriptedOstrioService, ostriolib::IOstrioService)

  std::shared_ptr<kelnet::Response> answer;
  int unauthenticatedCalls = 0;

  int Initialize(const kelcore::ImmutableString&, const kelcore::ImmutableString&, const ostriolib::EnvironmentType&,
                 const kelcore::ImmutableString&, const std::function<void(const kelcore::ImmutableString&)>&) override {
    return 0;
  }
  int SetAccessToken(const kelcore::ImmutableString&) override { return 0; }
  void NotifyUnauthenticated() override { ++unauthenticatedCalls; }
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> Query(const kelcore::U8Str&,
                                                                  const kelcore::utility::Dictionary&) override {
    return kelcore::async::MakeReadyFuture(answer);
  }
  int GetThrottleParameter1() override { return 16; }
  int GetThrottleParameter2() override { return 16; }
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> StreamingGet(const kelcore::ImmutableString&,
                                                                         const ostriolib::StreamingDataCallback&,
                                                                         const kelnet::HeaderMap&) const override {
    return kelcore::async::MakeReadyFuture(answer);
  }
};
