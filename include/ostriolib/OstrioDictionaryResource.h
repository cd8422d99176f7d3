#pragma once
// OstrioDictionaryResource: one validated GraphQL answer and its parsed JSON, and the library's
// one-call query path (GenericQuery). Every resource class of the library is registered the same
// way (OSTRIOLIB_RESOURCE_CLASS).

#include <memory>

#include "kelappsupport/ServiceResource.h"
#include "kelcore/ClassRef.h"
#include "kelcore/Dictionary.h"
#include "kelcore/Future.h"
#include "kelcore/Strings.h"
#include "ostriolib/IOstrioService.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_SERVICE);

// The class-reference members of a resource class: its name and the two app-support interfaces it
// answers to, allocation, creation registered with the class watcher, and the untyped creator.
#define OSTRIOLIB_RESOURCE_CLASS(Self)                                                                          \
  KEL_CLASS_REGISTRATION(Self, ::kelappsupport::cloudservice::IServiceResource,                                 \
                         ::kelappsupport::cloudservice::ServiceResource)                                        \
  static ::kelcore::classref::InterfaceRef<Self> AllocateClassInstance() {                                      \
    return ::kelcore::classref::AllocateClassInstance<Self>();                                                  \
  }                                                                                                             \
  static ::kelcore::classref::InterfaceRef<Self> CreateClassRef() {                                             \
    auto created = AllocateClassInstance();                                                                     \
    ::kelcore::classref::ClassWatcher::AddObject(created.Shared());                                             \
    return created;                                                                                             \
  }                                                                                                             \
  static void CreateInstanceRef(::kelcore::classref::InterfaceRef<::kelcore::classref::UnknownBase>& out) {     \
    out = CreateClassRef();                                                                                     \
  }

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioDictionaryResource : public kelappsupport::cloudservice::ServiceResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioDictionaryResource)

  ~OstrioDictionaryResource() override = default;

  // Posts the query through service; the future yields the filled resource, or fails with the
  // answer's result code (kErrorServiceUnavailable without a service, kErrorRequestFailed,
  // kErrorUnsupportedContentType, kErrorUnauthenticated, ...).
  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioDictionaryResource>> GenericQuery(
      const kelcore::classref::InterfaceRef<IOstrioService>& service, const kelcore::U8Str& query,
      const kelcore::utility::Dictionary& variables);

  // Validates and parses the answer. An answer that says "unauthenticated" also tells the service
  // (NotifyUnauthenticated) before this returns kErrorUnauthenticated.
  int SetServerResponse(const std::shared_ptr<kelnet::Response>& response,
                        const kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService>& service) override;
  virtual operator kelcore::classref::InterfaceRef<kelcore::classref::UnknownBase>();

  // For use once the load future has completed: the resource is written once, before that.
  kelcore::utility::Dictionary GetDictionary() const;
  kelcore::U8Str GetJSON() const;
  std::shared_ptr<kelnet::Response> GetResponse() const override;

 protected:
  // Either JSON media type, parameters such as a charset allowed.
  bool CanLoadContentType(const kelcore::ImmutableString& contentType) const override;

 private:
  int ValidateResponse(const std::shared_ptr<kelnet::Response>& response);
  int SetDictionaryFromResponse(const std::shared_ptr<kelnet::Response>& response);

  kelcore::utility::Dictionary dictionary;
};

}  // namespace ostriolib
