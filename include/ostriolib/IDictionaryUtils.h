#pragma once
// Walking parsed GraphQL answers.

#include <memory>
#include <vector>

#include "kelcore/ClassRef.h"
#include "kelcore/Dictionary.h"
#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_SERVICE);

namespace ostriolib {

using DictionaryArray = std::vector<kelcore::utility::DictionaryValue>;

class OSTRIOLIB_EXPORT IDictionaryUtils : public virtual kelcore::classref::Unknown {
 public:
  ~IDictionaryUtils() override = default;
  // The value as an object; empty when it is not one.
  virtual kelcore::utility::Dictionary ToDictionary(const kelcore::utility::DictionaryValue& value) = 0;
  // The array under key when it exists, is an array and holds at least one element; else null.
  virtual std::shared_ptr<const DictionaryArray> GetArray(const kelcore::utility::Dictionary& dictionary,
                                                          const kelcore::ImmutableString& key) = 0;
};

// Callers treat an empty reference as a programming error.
OSTRIOLIB_EXPORT kelcore::classref::InterfaceRef<IDictionaryUtils> CreateDictionaryUtils();

}  // namespace ostriolib
