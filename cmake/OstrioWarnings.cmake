# Warnings are errors in our own code; third-party headers come in as system includes.
function(ostrio_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  # Source paths in diagnostics, exceptions and debug information read relative to the repository
  # root ("src/OstrioClient.cpp"), not as build-machine absolute paths: installed binaries must not
  # name the machine they were built on.
  target_compile_options(${target} PRIVATE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
endfunction()
