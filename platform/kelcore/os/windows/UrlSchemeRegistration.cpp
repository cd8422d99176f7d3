// URL-scheme registration on Windows: the per-user class keys of the scheme.
//
// HKEY_CURRENT_USER\SOFTWARE\Classes is the current user's view of the classes root, so no
// elevation is needed and other users are not affected. Each step runs only if the previous one
// succeeded; the first failure is the result.

#ifdef _WIN32

#include "kelcore/UrlSchemeRegistration.h"

#include <windows.h>

#include <string>
#include <vector>

#include "kelcore/Strings.h"

namespace kelcore {
namespace {

class Key {
 public:
  Key() = default;
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() {
    if (key_) RegCloseKey(key_);
  }
  // Opens or creates `subkey` under `parent`.
  LSTATUS Create(HKEY parent, const std::wstring& subkey) {
    return RegCreateKeyExW(parent, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE, nullptr, &key_,
                           nullptr);
  }
  // `name` empty: the key's default (unnamed) value.
  LSTATUS SetStringValue(const std::wstring& name, const std::wstring& value) {
    return RegSetValueExW(key_, name.empty() ? nullptr : name.c_str(), 0, REG_SZ,
                          reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  }
  HKEY get() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

std::wstring Wide(std::string_view utf8) {
  const std::u16string text = UTF8ToUTF16(utf8);
  return std::wstring(text.begin(), text.end());
}

}  // namespace

std::string UrlSchemeRegistration::DesktopFileName(std::string_view) { return {}; }

std::filesystem::path UrlSchemeRegistration::GetMainModulePath() {
  std::vector<wchar_t> buffer(MAX_PATH);
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0) return {};
    if (length < buffer.size()) return std::filesystem::path(std::wstring(buffer.data(), length));
    buffer.resize(buffer.size() * 2);
  }
}

Result UrlSchemeRegistration::Register(const Handler& handler) {
  if (!IsValidScheme(handler.scheme)) return kErrorInvalidArgument;
  const std::filesystem::path executable = handler.executable.empty() ? GetMainModulePath() : handler.executable;
  if (executable.empty()) return kErrorInvalidArgument;
  const std::wstring modulePath = executable.wstring();

  Key classes, scheme, icon, command;
  LSTATUS status = classes.Create(HKEY_CURRENT_USER, L"SOFTWARE\\Classes\\");
  if (status == ERROR_SUCCESS) status = scheme.Create(classes.get(), Wide(handler.scheme));
  if (status == ERROR_SUCCESS) status = icon.Create(scheme.get(), L"DefaultIcon");
  if (status == ERROR_SUCCESS) status = icon.SetStringValue(L"", L"\"" + modulePath + L"\",0");
  if (status == ERROR_SUCCESS) status = command.Create(scheme.get(), L"shell\\open\\command");
  if (status == ERROR_SUCCESS) status = command.SetStringValue(L"", L"\"" + modulePath + L"\" \"%1\"");
  if (status == ERROR_SUCCESS) status = scheme.SetStringValue(L"", Wide(handler.displayName));
  if (status == ERROR_SUCCESS) status = scheme.SetStringValue(L"URL Protocol", L"");
  return status == ERROR_SUCCESS ? kResultOK : kErrorFailed;
}

}  // namespace kelcore

#endif  // _WIN32
