#pragma once
// The stateless implementation of IDictionaryUtils.

#include "ostriolib/IDictionaryUtils.h"

namespace ostriolib {

class DictionaryUtils final : public IDictionaryUtils {
  KEL_CLASS_REGISTRATION(DictionaryUtils, IDictionaryUtils)

  kelcore::utility::Dictionary ToDictionary(const kelcore::utility::DictionaryValue& value) override;
  std::shared_ptr<const DictionaryArray> GetArray(const kelcore::utility::Dictionary& dictionary,
                                                  const kelcore::ImmutableString& key) override;
};

}  // namespace ostriolib
