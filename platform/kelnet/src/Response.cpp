#include "kelnet/Response.h"

namespace kelnet {

const HeaderMap& Response::Headers() const {
  if (!fields_.empty()) std::call_once(headersMade_, [this] { MakeHeaders(); });
  return headers_;
}

void Response::MakeHeaders() const {
  std::string_view rest = fields_;
  while (!rest.empty()) {
    const std::size_t nameEnd = rest.find('\0');
    if (nameEnd == std::string_view::npos) break;
    const std::size_t valueEnd = rest.find('\0', nameEnd + 1);
    if (valueEnd == std::string_view::npos) break;
    // In arrival order, each after those of its name: a multimap keeps equal keys in insertion
    // order.
    headers_.emplace_hint(headers_.end(), kelcore::ImmutableString(rest.substr(0, nameEnd)),
                          kelcore::ImmutableString(rest.substr(nameEnd + 1, valueEnd - nameEnd - 1)));
    rest.remove_prefix(valueEnd + 1);
  }
}

kelcore::ImmutableString Response::FirstHeader(std::string_view name) const {
  // Names are stored lower-case and the map orders by text, so the first match in order is the
  // first that arrived.
  const HeaderMap& headers = Headers();
  for (auto it = headers.lower_bound(kelcore::ImmutableString(name)); it != headers.end(); ++it) {
    if (it->first.View() != name) break;
    return it->second;
  }
  return {};
}

kelcore::ImmutableString Response::LastHeader(std::string_view name) const {
  kelcore::ImmutableString last;
  const HeaderMap& headers = Headers();
  for (auto it = headers.lower_bound(kelcore::ImmutableString(name)); it != headers.end(); ++it) {
    if (it->first.View() != name) break;
    last = it->second;
  }
  return last;
}

}  // namespace kelnet
