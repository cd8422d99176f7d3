# The library's subsystems, each a static library of its own linked whole into the one shared
# `ostriolib`. The order configuration <- auth <- service <- queries <- client <- scripting is
# the build's to keep, not the reviewer's:
#   - a subsystem's folder is on the include path only of itself and of the subsystems above it
#     (they link it), so a private header reached from below is not found;
#   - each subsystem compiles with OSTRIOLIB_LAYER set to its place in the order, and every
#     exported header under include/ostriolib refuses to compile below its own subsystem.
set(OSTRIOLIB_LAYER_configuration 1)
set(OSTRIOLIB_LAYER_auth 2)
set(OSTRIOLIB_LAYER_service 3)
set(OSTRIOLIB_LAYER_queries 4)
set(OSTRIOLIB_LAYER_client 5)
set(OSTRIOLIB_LAYER_scripting 6)
set_property(GLOBAL PROPERTY OSTRIOLIB_SUBSYSTEMS "")

# ostrio_subsystem(<name> SOURCES_DIR <dir> [USES <lower subsystem>...] [LIBS <platform libs>...])
function(ostrio_subsystem name)
  cmake_parse_arguments(ARG "" "SOURCES_DIR" "USES;LIBS" ${ARGN})
  set(target ostriolib_${name})
  file(GLOB sources CONFIGURE_DEPENDS ${ARG_SOURCES_DIR}/*.cpp)
  add_library(${target} STATIC ${sources})
  target_include_directories(${target} PUBLIC ${ARG_SOURCES_DIR} ${PROJECT_SOURCE_DIR}/include)
  set(uses)
  foreach(lower ${ARG_USES})
    list(APPEND uses ostriolib_${lower})
  endforeach()
  target_link_libraries(${target} PUBLIC ${uses} ${ARG_LIBS})
  target_compile_definitions(${target}
    PUBLIC OSTRIOLIB_BUILDING_LIBRARY
    PRIVATE OSTRIOLIB_LAYER=${OSTRIOLIB_LAYER_${name}})
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  ostrio_own_code(${target})
  set_property(GLOBAL APPEND PROPERTY OSTRIOLIB_SUBSYSTEMS ${target})
endfunction()
