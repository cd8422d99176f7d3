#include "kelscripting/NativePromise.h"

#include <utility>

#include "kelcore/KelException.h"

namespace kelscripting {

std::shared_ptr<NativePromise> NativePromise::Create(const ScriptContextRef& context) {
  KEL_THROW_IF(!context, kelcore::kErrorInvalidArgument, "A promise needs a script context");
  auto backend = context->CreatePromise();
  KEL_THROW_IF(!backend, kelcore::kErrorFailed, "The script context made no promise");
  return std::make_shared<NativePromise>(std::move(backend));
}

NativePromise::NativePromise(std::shared_ptr<IPromiseBackend> backend) : backend_(std::move(backend)) {}

NativePromise::~NativePromise() {
  if (!backend_ || !Claim()) return;
  try {
    backend_->RejectWithError("Broken promise", kelcore::kErrorFailed);
  } catch (...) {
    // A destructor has nobody to tell; the engine has gone, and its promise with it.
  }
}

bool NativePromise::Resolve(ScriptValue value) {
  if (!Claim()) return false;
  backend_->Resolve(std::move(value));
  return true;
}

bool NativePromise::Reject(ScriptValue reason) {
  if (!Claim()) return false;
  backend_->Reject(std::move(reason));
  return true;
}

bool NativePromise::Reject(std::string message, kelcore::Result code) {
  if (!Claim()) return false;
  backend_->RejectWithError(std::move(message), code);
  return true;
}

}  // namespace kelscripting
