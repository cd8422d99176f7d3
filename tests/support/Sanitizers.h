#pragma once
// Whether this build runs under a sanitizer. Sanitizers keep freed memory in quarantine and slow
// every byte down, so memory ceilings hold only in a plain build, and sizes are smaller there.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif
