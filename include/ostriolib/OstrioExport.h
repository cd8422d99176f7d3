#pragma once
// Symbols the library exports; everything else stays hidden.

#if defined(OSTRIOLIB_BUILDING_LIBRARY)
#define OSTRIOLIB_EXPORT __attribute__((visibility("default")))
#else
#define OSTRIOLIB_EXPORT
#endif
