# Warnings are errors in our own code; third-party headers come in as system includes.
function(ostrio_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  # Source paths in diagnostics and exceptions read relative to the repository root
  # ("src/OstrioClient.cpp"), not as build-machine absolute paths.
  target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
endfunction()
