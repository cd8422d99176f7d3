// The class-reference side of the app-support bases: what a resource keeps, and that interface
// lookups by name land on the right sub-object through the virtual bases.

#include <gtest/gtest.h>

#include "kelappsupport/ServiceBase.h"
#include "kelappsupport/ServiceResource.h"
#include "kelcore/ResultCodes.h"

namespace {

using kelappsupport::cloudservice::IService;
using kelappsupport::cloudservice::IServiceResource;
using kelappsupport::cloudservice::ServiceBase;
using kelappsupport::cloudservice::ServiceResource;
using kelcore::classref::AllocateClassInstance;
using kelcore::classref::InterfaceRef;
using kelcore::classref::UnknownBase;

TEST(ServiceResourceTest, KeepsTheLastAnswerAndAnswersToItsNames) {
  auto resource = AllocateClassInstance<ServiceResource>();
  InterfaceRef<UnknownBase> unknown(resource);
  auto asInterface = unknown.Query<IServiceResource>();
  ASSERT_TRUE(asInterface);
  EXPECT_EQ(asInterface.get(), static_cast<IServiceResource*>(resource.get()));
  EXPECT_TRUE(unknown.Query<ServiceResource>());
  EXPECT_FALSE(unknown.Query<IService>());
  EXPECT_EQ(resource->GetUnknownTypeName().View(), "kelappsupport::cloudservice::ServiceResource");

  EXPECT_EQ(asInterface->SetServerResponse(nullptr, {}), kelcore::kErrorNoResponse);
  EXPECT_FALSE(asInterface->GetResponse());
  auto first = std::make_shared<kelnet::Response>(200, kelnet::HeaderMap{}, "{}");
  auto second = std::make_shared<kelnet::Response>(503, kelnet::HeaderMap{}, "");
  EXPECT_EQ(asInterface->SetServerResponse(first, {}), 0);
  EXPECT_EQ(asInterface->SetServerResponse(second, {}), 0);
  EXPECT_EQ(asInterface->GetResponse(), second);
  EXPECT_TRUE(resource->CanLoadContentType("text/plain"));
}

TEST(ServiceResourceTest, ServiceBaseAnswersAsIService) {
  auto service = AllocateClassInstance<ServiceBase>();
  InterfaceRef<UnknownBase> unknown(service);
  auto asService = unknown.Query<IService>();
  ASSERT_TRUE(asService);
  EXPECT_EQ(asService.get(), static_cast<IService*>(service.get()));
  EXPECT_FALSE(unknown.Query<IServiceResource>());
}

}  // namespace
