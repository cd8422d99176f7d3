#pragma once
// A script engine for tests: its one context makes promises that record how they settled, and it
// records the root events queued to it.

#include <memory>
#include <string>
#include <vector>

#include "kelscripting/NativePromise.h"
#include "kelscripting/ScriptEngine.h"

namespace kelscripting {

// Both settle and record on the thread that drives them: the script objects settle inline and
// queue events from the main loop the test runs.
class RecordingPromise final : public IPromiseBackend {
 public:
  void Resolve(ScriptValue value) override { settled = "resolved " + value.AsString(); }
  void Reject(ScriptValue) override { settled = "rejected"; }
  void RejectWithError(std::string message, kelcore::Result code) override {
    settled = "failed " + std::to_string(code) + " " + message;
  }
  std::string settled = "pending";  // or "resolved <text>", "rejected", "failed <code> <message>"
};

class RecordingScriptEngine final : public IScriptEngine, public IScriptContext {
 public:
  std::shared_ptr<IPromiseBackend> CreatePromise() override { return std::make_shared<RecordingPromise>(); }
  // How a NativePromise this engine made has settled so far.
  static std::string Settled(const std::shared_ptr<NativePromise>& promise) {
    return std::dynamic_pointer_cast<RecordingPromise>(promise->Backend())->settled;
  }
  bool QueueRootEvent(RootEvent event) override {
    events.push_back(event.className + "." + event.eventName);
    return true;
  }
  std::vector<std::string> events;  // "<class>.<event>" in the order queued
};

}  // namespace kelscripting
