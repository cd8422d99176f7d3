#pragma once
// OstrioService: GraphQL queries and streaming downloads over the app-support request pipeline.
//
// The pipeline (ServiceBase) throttles, retries 502/503/504, stamps the bearer token per attempt
// and calls back on 401; this class packs GraphQL bodies, picks the endpoint of the environment
// and adds the headers every request of the library carries. Completions run on kelnet's threads
// and are handed to the futures' default executor; each holds the service alive until it ran.

#include <functional>
#include <mutex>
#include <string>

#include "HttpPostProvider.h"
#include "HttpStreamingGetProvider.h"
#include "kelappsupport/ServiceBase.h"
#include "ostriolib/IOstrioService.h"

namespace ostriolib {

class OstrioService final : public IOstrioService, public kelappsupport::cloudservice::ServiceBase {
  KEL_CLASS_REGISTRATION(OstrioService, IOstrioService, kelappsupport::cloudservice::IService,
                         kelappsupport::cloudservice::ServiceBase)

  OstrioService();
  ~OstrioService() override;

  int Initialize(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& accessToken,
                 const EnvironmentType& environmentType, const kelcore::ImmutableString& previewValue,
                 const std::function<void(const kelcore::ImmutableString&)>& onUnauthenticated) override;
  int SetAccessToken(const kelcore::ImmutableString& token) override;
  void NotifyUnauthenticated() override;
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> Query(
      const kelcore::U8Str& queryText, const kelcore::utility::Dictionary& variables) override;
  int GetThrottleParameter1() override { return 16; }
  int GetThrottleParameter2() override { return 16; }
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> StreamingGet(
      const kelcore::ImmutableString& url, const StreamingDataCallback& onData,
      const kelnet::HeaderMap& headers) const override;

 protected:
  void AddCommonHeaders(kelnet::HeaderMap& headers) override;

 private:
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> Post(
      const kelcore::ImmutableString& url, const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body,
      const kelnet::HeaderMap& headers);
  kelcore::classref::InterfaceRef<kelappsupport::cloudservice::IService> Self() const;

  kelcore::classref::InterfaceRef<IHttpPostProvider> postProvider_;
  kelcore::classref::InterfaceRef<IHttpStreamingGetProvider> streamingGetProvider_;
  kelcore::ImmutableString clientId_;
  std::uint8_t environmentType_ = 0;
  kelcore::ImmutableString previewValue_;
  std::mutex tokenMutex_;
  kelcore::ImmutableString accessToken_;
  std::function<void(const kelcore::ImmutableString&)> onUnauthenticated_;
  // Resolved once, with the host the token is kept to, so the two can never disagree.
  kelcore::ImmutableString endpoint_;
};

}  // namespace ostriolib
