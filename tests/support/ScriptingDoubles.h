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
  void Resolve(ScriptValue value) override { Settle("resolved " + value.AsString()); }
  void Reject(ScriptValue) override { Settle("rejected"); }
  void RejectWithError(std::string message, kelcore::Result code) override {
    Settle("failed " + std::to_string(code) + " " + message);
  }
  // "pending", "resolved <text>", "rejected" or "failed <code> <message>".
  std::string Settled() const {
    std::lock_guard lock(mutex_);
    return settled_;
  }

 private:
  void Settle(std::string settled) {
    std::lock_guard lock(mutex_);
    settled_ = std::move(settled);
  }
  mutable std::mutex mutex_;
  std::string settled_ = "pending";
};

class RecordingScriptEngine final : public IScriptEngine, public IScriptContext {
 public:
  std::shared_ptr<IPromiseBackend> CreatePromise() override { return std::make_shared<RecordingPromise>(); }
  // How a NativePromise this engine made has settled so far.
  static std::string Settled(const std::shared_ptr<NativePromise>& promise) {
    return std::dynamic_pointer_cast<RecordingPromise>(promise->Backend())->Settled();
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
  std::vector<std::string> events_;
};

}  // namespace kelscripting
