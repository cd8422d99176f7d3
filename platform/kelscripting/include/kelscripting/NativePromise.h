#pragma once
// NativePromise: a promise made for a script, settled from native code on any thread.
//
// The first settlement wins; later ones return false and change nothing. A promise dropped
// unsettled is rejected ("Broken promise", kErrorFailed), so a script never waits forever on a
// promise native code forgot.

#include <atomic>
#include <memory>
#include <string>

#include "kelcore/ResultCodes.h"
#include "kelscripting/ScriptEngine.h"
#include "kelscripting/ScriptValue.h"

namespace kelscripting {

class NativePromise {
 public:
  // Made in the context (on its scripting thread). Throws kel_exception(kErrorInvalidArgument)
  // for a null context, and whatever the context throws.
  static std::shared_ptr<NativePromise> Create(const ScriptContextRef& context);

  explicit NativePromise(std::shared_ptr<IPromiseBackend> backend);
  ~NativePromise();
  NativePromise(const NativePromise&) = delete;
  NativePromise& operator=(const NativePromise&) = delete;

  bool Resolve(ScriptValue value);
  bool Reject(ScriptValue reason);
  // Rejects with an error carrying the message and the result code.
  bool Reject(std::string message, kelcore::Result code);
  bool IsSettled() const noexcept { return settled_.load(); }

  // For the engine that made it: its own half, to hand the script-side promise out.
  const std::shared_ptr<IPromiseBackend>& Backend() const noexcept { return backend_; }

 private:
  bool Claim() noexcept { return !settled_.exchange(true); }

  std::atomic<bool> settled_{false};
  const std::shared_ptr<IPromiseBackend> backend_;
};

}  // namespace kelscripting
