#pragma once
// What every query resource shares: the load and count paths (send, check the answer, hand back
// the resource or a number) and the reading rules for answers (paths, nodes, integers, cursors).

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

#include "kelappsupport/IService.h"
#include "kelcore/Dictionary.h"
#include "kelcore/Executor.h"
#include "kelcore/Future.h"
#include "kelcore/Guid.h"
#include "ostriolib/IOstrioService.h"
#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioKeys.h"

namespace ostriolib {

// Where a query family's failures say they come from: its source path and its load function.
struct QuerySite {
  std::string_view path;      // "queries/src/OstrioAccountList"
  std::string_view function;  // "ostriolib::OstrioAccountList::LoadAccountList"
};

class OstrioQuery {
 public:
  using Response = std::shared_ptr<kelnet::Response>;
  using Service = kelcore::classref::InterfaceRef<IOstrioService>;

  // Sends the query unless the request is refused up front (no service, bad page size: then a
  // failed future, kErrorServiceUnavailable, nothing sent); resolves to the filled resource.
  template <class Resource>
  static kelcore::async::Future<kelcore::classref::InterfaceRef<Resource>> Load(const Service& service, bool valid,
                                                                               const kelcore::U8Str& query,
                                                                               const kelcore::utility::Dictionary& variables,
                                                                               const QuerySite& site) {
    using Ref = kelcore::classref::InterfaceRef<Resource>;
    if (!service || !valid) return kelcore::async::MakeFailedFuture<Ref>(kelcore::kErrorServiceUnavailable);
    Ref resource = Resource::CreateClassRef();
    return service->Query(query, variables)
        .ThenOnSuccess(
            [resource, service, site](const Response& inResponse) {
              Accept(*resource, service, inResponse, site);
              return resource;
            },
            kelcore::async::GetDefaultExecutor());
  }

  // Sends a count query; read gets the answer's non-empty "data" object (an empty one fails with
  // kErrorFailed, "data.empty()").
  template <class Read>
  static auto Count(const Service& service, const kelcore::U8Str& query, const kelcore::utility::Dictionary& variables,
                    const QuerySite& site, Read read) {
    using T = std::invoke_result_t<Read&, const kelcore::utility::Dictionary&>;
    if (!service) return kelcore::async::MakeFailedFuture<T>(kelcore::kErrorServiceUnavailable);
    return service->Query(query, variables)
        .ThenOnSuccess(
            [service, site, read = std::move(read)](const Response& inResponse) -> T {
              auto resource = OstrioDictionaryResource::CreateClassRef();
              Accept(*resource, service, inResponse, site);
              return read(Data(resource->GetDictionary(), site));
            },
            kelcore::async::GetDefaultExecutor());
  }

  // {"first": first, "after": after}; no "after" for the first page.
  static kelcore::utility::Dictionary PageInput(int first, const kelcore::U8Str& after);

  // The object at the end of path; empty as soon as one step is missing, empty or not an object.
  static kelcore::utility::Dictionary Object(const kelcore::utility::Dictionary& from,
                                             std::initializer_list<kelcore::ImmutableString> path);
  // The elements of paged's "nodes", each taken as an object (empty when it is not one).
  static std::vector<kelcore::utility::Dictionary> Nodes(const kelcore::utility::Dictionary& paged);
  // "endCursor" only when "hasNextPage" is true, else empty: an empty cursor ends the paging.
  static kelcore::U8Str NextCursor(const kelcore::utility::Dictionary& paged);

  // A boolean (0/1), integer, number (truncated toward zero) or decimal string; anything else 0.
  // Values beyond 32 bits are clamped, never wrapped.
  static std::int32_t Integer(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key);
  static kelcore::utility::Guid Id(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key);
  static kelcore::U8Str Text(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key);

 private:
  // The response checks of every load: a response must exist and the resource must accept it.
  static void Accept(OstrioDictionaryResource& resource, const Service& service, const Response& inResponse,
                     const QuerySite& site);
  static kelcore::utility::Dictionary Data(const kelcore::utility::Dictionary& answer, const QuerySite& site);
};

}  // namespace ostriolib
