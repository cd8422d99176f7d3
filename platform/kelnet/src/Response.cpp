#include "kelnet/Response.h"

namespace kelnet {

kelcore::ImmutableString Response::FirstHeader(std::string_view name) const {
  // Names are stored lower-case and the map orders by text, so the first match in order is the
  // first that arrived.
  for (auto it = headers_.lower_bound(kelcore::ImmutableString(name)); it != headers_.end(); ++it) {
    if (it->first.View() != name) break;
    return it->second;
  }
  return {};
}

kelcore::ImmutableString Response::LastHeader(std::string_view name) const {
  kelcore::ImmutableString last;
  for (auto it = headers_.lower_bound(kelcore::ImmutableString(name)); it != headers_.end(); ++it) {
    if (it->first.View() != name) break;
    last = it->second;
  }
  return last;
}

}  // namespace kelnet
