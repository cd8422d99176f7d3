#include "kelcore/File.h"

#include <system_error>

#include "kelcore/Strings.h"

namespace kelcore::filesupport {

std::u16string File::FullPath() const {
  if (path_.empty()) return {};
  std::error_code error;
  auto absolute = std::filesystem::absolute(path_, error);
  // Without a current directory (deleted under us) a relative path cannot be resolved; the
  // normalised path as given is still the best answer.
  if (error) absolute = path_;
  // Linux paths are bytes, UTF-8 by convention; the conversion marks anything else with U+FFFD.
  return UTF8ToUTF16(absolute.lexically_normal().string());
}

}  // namespace kelcore::filesupport
