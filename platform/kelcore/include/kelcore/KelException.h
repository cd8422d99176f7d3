#pragma once
// kel_exception: a result code with the message and the place that raised it.

#include <exception>
#include <string>
#include <string_view>

#include "kelcore/ResultCodes.h"

namespace kelcore {

class kel_exception : public std::exception {
 public:
  kel_exception(Result result, std::string message = {}, std::string_view sourcePath = {}, int line = 0,
                std::string_view function = {}, std::string_view expression = {});

  Result GetResult() const noexcept { return result_; }
  const std::string& Message() const noexcept { return message_; }
  // Repository-relative path of the raising source file without its extension ("src/OstrioClient").
  const std::string& SourcePath() const noexcept { return sourcePath_; }
  int Line() const noexcept { return line_; }
  const std::string& Function() const noexcept { return function_; }
  const std::string& Expression() const noexcept { return expression_; }

  // The message, or "result 0x........" when there is none.
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  Result result_;
  std::string message_;
  std::string sourcePath_;
  int line_;
  std::string function_;
  std::string expression_;
  std::string what_;
};

// A required key was absent from a parsed document.
class missing_key_exception : public kel_exception {
 public:
  missing_key_exception(std::string_view key, std::string_view typeName);
  const std::string& Key() const noexcept { return key_; }
  const std::string& TypeName() const noexcept { return typeName_; }

 private:
  std::string key_;
  std::string typeName_;
};

// A required object reference was empty: a programming error, raised with the type's name.
class null_pointer_exception : public kel_exception {
 public:
  explicit null_pointer_exception(std::string_view typeName, std::string_view sourcePath = {}, int line = 0,
                                  std::string_view function = {});
};

// The result code an exception carries: the kel_exception's own code, kErrorFailed for any
// other exception, 0 for a null pointer.
Result ExtractResultFromException(const std::exception_ptr& error) noexcept;
// The message of the exception ("" for none or non-std exceptions).
std::string ExtractMessageFromException(const std::exception_ptr& error);

// Strips the extension from a repository-relative __FILE__ ("src/OstrioClient.cpp" -> "src/OstrioClient").
std::string SourcePathWithoutExtension(std::string_view file);

// Where an exception says it was raised, as data. The library's contract names some raising places
// exactly (a source path, a line, a function), so those places must not move when the code that
// raises them does; a site written once beside the code keeps them stable across any file layout.
struct SourceSite {
  std::string_view path;  // repository-relative, without extension
  int line = 0;
  std::string function;
};

// The name a continuation is reported under: "<function>::<lambda_N>::operator ()", the way the
// platform's own tooling names the N-th lambda of a function, written once instead of by hand.
std::string ContinuationName(std::string_view function, int index);
// A site inside the index-th continuation of `function`.
SourceSite ContinuationSite(std::string_view path, int line, std::string_view function, int index);

}  // namespace kelcore

// Throws kel_exception(code, message) naming this place and the failed condition's text.
#define KEL_THROW_IF(condition, code, message)                                                         \
  do {                                                                                                 \
    if (condition) {                                                                                   \
      throw ::kelcore::kel_exception((code), (message), __FILE__, __LINE__, __PRETTY_FUNCTION__, #condition); \
    }                                                                                                  \
  } while (false)

// As KEL_THROW_IF with an explicit function name, for lambdas whose compiler-given name says little.
#define KEL_THROW_IF_IN(condition, code, message, function)                                  \
  do {                                                                                       \
    if (condition) {                                                                         \
      throw ::kelcore::kel_exception((code), (message), __FILE__, __LINE__, (function), #condition); \
    }                                                                                        \
  } while (false)

// As KEL_THROW_IF, raised at a site given as data (see SourceSite).
#define KEL_THROW_IF_AT(condition, code, message, site)                                                     \
  do {                                                                                                      \
    if (condition) {                                                                                        \
      const ::kelcore::SourceSite& kelSite_ = (site);                                                       \
      throw ::kelcore::kel_exception((code), (message), kelSite_.path, kelSite_.line, kelSite_.function, #condition); \
    }                                                                                                       \
  } while (false)

#define KEL_THROW_IF_NULL(pointer, TypeName)                                                          \
  do {                                                                                                \
    if (!(pointer)) {                                                                                 \
      throw ::kelcore::null_pointer_exception(#TypeName, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
    }                                                                                                 \
  } while (false)
