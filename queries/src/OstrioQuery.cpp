#include "OstrioQuery.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "kelcore/KelException.h"
#include "ostriolib/IDictionaryUtils.h"

namespace ostriolib {
namespace {

std::int32_t Clamp(long double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<long double>(std::numeric_limits<std::int32_t>::max())) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (value <= static_cast<long double>(std::numeric_limits<std::int32_t>::min())) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(value);  // truncates toward zero
}

// A decimal integer at the start of the text, as a stream would read it ("12abc" is 12).
std::int32_t ParseDecimal(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n')) text.remove_prefix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) return text.starts_with('-') ? std::numeric_limits<std::int32_t>::min()
                                                                            : std::numeric_limits<std::int32_t>::max();
  if (error != std::errc()) return 0;
  return Clamp(static_cast<long double>(value));
}

}  // namespace

void OstrioQuery::Accept(OstrioDictionaryResource& resource, const Service& service, const Response& inResponse,
                         const QuerySite& site) {
  KEL_THROW_IF_AT(!inResponse, kelcore::kErrorPreconditionFailed, "",
                  kelcore::ContinuationSite(site.path, __LINE__, site.function, 1));
  const int result = resource.SetServerResponse(inResponse, service.Query<kelappsupport::cloudservice::IService>());
  KEL_THROW_IF_AT(!kelcore::ResultSucceeded(result), result, "",
                  kelcore::ContinuationSite(site.path, __LINE__, site.function, 1));
}

kelcore::utility::Dictionary OstrioQuery::Data(const kelcore::utility::Dictionary& answer, const QuerySite& site) {
  const kelcore::utility::Dictionary data = answer.GetDictionary(kKeyData.View());
  KEL_THROW_IF_AT(data.empty(), kelcore::kErrorFailed, "",
                  kelcore::ContinuationSite(site.path, __LINE__, site.function, 1));
  return data;
}

kelcore::utility::Dictionary OstrioQuery::PageInput(int first, const kelcore::U8Str& after) {
  kelcore::utility::Dictionary page{{kKeyFirst, first}};
  if (!after.empty()) page.Set(kKeyAfter, after);
  return page;
}

kelcore::utility::Dictionary OstrioQuery::Object(const kelcore::utility::Dictionary& from,
                                                 std::initializer_list<kelcore::ImmutableString> path) {
  kelcore::utility::Dictionary current = from;
  for (const auto& key : path) {
    if (current.empty()) break;
    current = current.GetDictionary(key.View());
  }
  return current;
}

std::vector<kelcore::utility::Dictionary> OstrioQuery::Nodes(const kelcore::utility::Dictionary& paged) {
  std::vector<kelcore::utility::Dictionary> nodes;
  auto utils = CreateDictionaryUtils();
  KEL_THROW_IF_NULL(utils, IDictionaryUtils);
  const auto array = utils->GetArray(paged, kKeyNodes);
  if (!array) return nodes;
  nodes.reserve(array->size());
  for (const auto& element : *array) nodes.push_back(utils->ToDictionary(element));
  return nodes;
}

kelcore::U8Str OstrioQuery::NextCursor(const kelcore::utility::Dictionary& paged) {
  const auto pageInfo = paged.GetDictionary(kKeyPageInfo.View());
  const auto hasNextPage = pageInfo.Get(kKeyHasNextPage.View());
  if (!hasNextPage || !hasNextPage->IsBool() || !hasNextPage->AsBool()) return {};
  return Text(pageInfo, kKeyEndCursor);
}

std::int32_t OstrioQuery::Integer(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key) {
  const auto value = object.Get(key.View());
  if (!value) return 0;
  switch (value->GetKind()) {
    case kelcore::utility::DictionaryValue::Kind::Boolean:
      return value->AsBool() ? 1 : 0;
    case kelcore::utility::DictionaryValue::Kind::Integer:
      return Clamp(static_cast<long double>(value->AsInt64()));
    case kelcore::utility::DictionaryValue::Kind::UnsignedInteger:
      return Clamp(static_cast<long double>(value->AsUInt64()));
    case kelcore::utility::DictionaryValue::Kind::Double:
      return Clamp(static_cast<long double>(value->AsDouble()));
    case kelcore::utility::DictionaryValue::Kind::String:
      return ParseDecimal(value->AsStringView());
    default:
      return 0;
  }
}

kelcore::utility::Guid OstrioQuery::Id(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key) {
  const auto value = object.Get(key.View());
  if (!value || !value->IsString()) return {};
  return kelcore::utility::Guid(value->AsStringView());
}

kelcore::U8Str OstrioQuery::Text(const kelcore::utility::Dictionary& object, const kelcore::ImmutableString& key) {
  const auto value = object.Get(key.View());
  if (!value || !value->IsString()) return {};
  return kelcore::ToU8Str(value->AsStringView());
}

}  // namespace ostriolib
