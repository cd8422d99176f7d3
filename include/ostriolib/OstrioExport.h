#pragma once
// Symbols the library exports; everything else stays hidden.

#if defined(OSTRIOLIB_BUILDING_LIBRARY)
#define OSTRIOLIB_EXPORT __attribute__((visibility("default")))
#else
#define OSTRIOLIB_EXPORT
#endif

// Inside the library each subsystem compiles with OSTRIOLIB_LAYER set to its place in the order
// configuration (1) <- auth (2) <- service (3) <- queries (4) <- client (5) <- scripting (6).
// Each exported header names its subsystem's place, so a lower subsystem that includes it does
// not build. Hosts and tests define no layer and may include anything.
#if defined(OSTRIOLIB_LAYER)
#define OSTRIOLIB_HEADER_OF_LAYER(layer) \
  static_assert(OSTRIOLIB_LAYER >= (layer), "a subsystem includes the header of a subsystem above it")
#else
#define OSTRIOLIB_HEADER_OF_LAYER(layer) static_assert(true)
#endif
#define OSTRIOLIB_LAYER_CONFIGURATION 1
#define OSTRIOLIB_LAYER_AUTH 2
#define OSTRIOLIB_LAYER_SERVICE 3
#define OSTRIOLIB_LAYER_QUERIES 4
#define OSTRIOLIB_LAYER_CLIENT 5
#define OSTRIOLIB_LAYER_SCRIPTING 6
