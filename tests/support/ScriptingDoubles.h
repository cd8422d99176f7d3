#pragma once
// A script engine for tests: its one context makes promises that record how they settled, and it
// records the root events queued to it.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelscripting/NativePromise.h"
#include "kelscripting/ScriptEngine.h"

namespace kelscripting {

class RecordingPromise final : public IPromiseBackend {
 public:
  enum class State { Pending, Resolved, Rejected, Failed };

  void Resolve(ScriptValue value) override { Settle(State::Resolved, std::move(value), {}, 0); }
  void Reject(ScriptValue reason) override { Settle(State::Rejected, std::move(reason), {}, 0); }
  void RejectWithError(std::string message, kelcore::Result code) override {
    Settle(State::Failed, {}, std::move(message), code);
  }

  State GetState() const {
    std::lock_guard lock(mutex_);
    return state_;
  }
  ScriptValue Value() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  std::string Message() const {
    std::lock_guard lock(mutex_);
    return message_;
  }
  kelcore::Result Code() const {
    std::lock_guard lock(mutex_);
    return code_;
  }
  int Settlements() const {
    std::lock_guard lock(mutex_);
    return settlements_;
  }

 private:
  void Settle(State state, ScriptValue value, std::string message, kelcore::Result code) {
    std::lock_guard lock(mutex_);
    ++settlements_;
    state_ = state;
    value_ = std::move(value);
    message_ = std::move(message);
    code_ = code;
  }
  mutable std::mutex mutex_;
  State state_ = State::Pending;
  ScriptValue value_;
  std::string message_;
  kelcore::Result code_ = 0;
  int settlements_ = 0;
};

class RecordingScriptEngine final : public IScriptEngine, public IScriptContext {
 public:
  std::shared_ptr<IPromiseBackend> CreatePromise() override {
    auto promise = std::make_shared<RecordingPromise>();
    std::lock_guard lock(mutex_);
    promises_.push_back(promise);
    return promise;
  }
  // The recording half of a NativePromise this engine made.
  static std::shared_ptr<RecordingPromise> Recorded(const std::shared_ptr<NativePromise>& promise) {
    return promise ? std::dynamic_pointer_cast<RecordingPromise>(promise->Backend()) : nullptr;
  }

  bool QueueRootEvent(RootEvent event) override {
    std::lock_guard lock(mutex_);
    events_.push_back(event.className + "." + event.eventName);
    return true;
  }

  // "<class>.<event>" in the order queued.
  std::vector<std::string> Events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<RecordingPromise>> promises_;
  std::vector<std::string> events_;
};

}  // namespace kelscripting
