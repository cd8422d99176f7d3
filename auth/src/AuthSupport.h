#pragma once
// Small pieces the auth manager needs that are not its own state: the text forms it reads and
// writes (percent-encoding, letter case, seconds, result codes) and its diagnostics.

#include <cstdint>
#include <string>
#include <string_view>

#include "kelcore/ResultCodes.h"

namespace ostriolib {

// Every byte outside "-_.~", digits and ASCII letters as '%' and upper-case hex: two digits, or
// (`twoDigits` false) without a leading zero, the form the sign-in page expects.
std::string PercentEncode(std::string_view text, bool twoDigits);
// Letter case as the host's locale sees it: the browser or the desktop may change the case of the
// scheme and host, and the scheme is the host's own choice of name.
std::string UpperCase(std::string_view text);
// Optional '-', then digits up to the first non-digit; no digit or overflow gives 0.
std::int64_t ParseSeconds(std::string_view text);
// "0x" and eight upper-case hex digits.
std::string ResultText(kelcore::Result code);
// The calling stack, one frame a line, at most maxEntries (16) frames.
std::string StackTrace(int maxEntries);
// A failed debug assertion: logged, and in debug builds a stop in the debugger if one is attached.
void DoSimpleAssert(std::string_view condition, const char* function, std::string_view file, int line);

}  // namespace ostriolib
