#include "DictionaryUtils.h"

namespace ostriolib {

kelcore::classref::InterfaceRef<IDictionaryUtils> CreateDictionaryUtils() {
  auto utils = kelcore::classref::AllocateClassInstance<DictionaryUtils>();
  kelcore::classref::ClassWatcher::AddObject(utils.Shared());
  return utils;
}

kelcore::utility::Dictionary DictionaryUtils::ToDictionary(const kelcore::utility::DictionaryValue& value) {
  return value.AsDictionary();
}

std::shared_ptr<const DictionaryArray> DictionaryUtils::GetArray(const kelcore::utility::Dictionary& dictionary,
                                                                 const kelcore::ImmutableString& key) {
  const auto value = dictionary.Get(key.View());
  if (!value || !value->IsArray() || value->Size() == 0) return nullptr;
  return std::make_shared<const DictionaryArray>(value->AsArray());
}

}  // namespace ostriolib
