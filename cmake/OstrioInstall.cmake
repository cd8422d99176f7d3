# What `cmake --install` puts where, and the package that carries it: the shared libraries (the
# library and its platform libraries), the exported headers, a CMake package
# (find_package(ostriolib) → ostriolib::ostriolib) and a pkg-config file. Hosts need nothing of
# the source or build tree.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ostrio_installed_libraries ostriolib kelcore kelnet kelappsupport)
if(TARGET kelscripting)
  list(APPEND ostrio_installed_libraries kelscripting)
endif()

# Include paths name the source tree only while building; installed, they name the prefix.
foreach(library ${ostrio_installed_libraries})
  get_target_property(directories ${library} INTERFACE_INCLUDE_DIRECTORIES)
  set(rewritten)
  foreach(directory ${directories})
    if(directory MATCHES "^\\$<")
      list(APPEND rewritten "${directory}")
    else()
      list(APPEND rewritten "$<BUILD_INTERFACE:${directory}>")
    endif()
  endforeach()
  list(APPEND rewritten "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set_property(TARGET ${library} PROPERTY INTERFACE_INCLUDE_DIRECTORIES "${rewritten}")
  set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endforeach()

install(TARGETS ${ostrio_installed_libraries}
  EXPORT ostriolibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Exported headers, and the platform headers they stand on.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ostriolib DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h")
foreach(platform kelcore kelnet kelappsupport kelscripting)
  if(EXISTS ${PROJECT_SOURCE_DIR}/platform/${platform}/include/${platform})
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/${platform}/include/${platform}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
  endif()
endforeach()

set(ostrio_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ostriolib)
install(EXPORT ostriolibTargets NAMESPACE ostriolib:: DESTINATION ${ostrio_cmake_dir} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ostriolibConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ostriolibConfig.cmake INSTALL_DESTINATION ${ostrio_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ostriolibConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ostriolibConfig.cmake ${PROJECT_BINARY_DIR}/ostriolibConfigVersion.cmake
        DESTINATION ${ostrio_cmake_dir} COMPONENT development)

# pkg-config: the platform libraries are named too, since the exported headers use their types.
set(ostrio_pc_libs "-lostriolib")
foreach(library ${ostrio_installed_libraries})
  if(NOT library STREQUAL "ostriolib")
    string(APPEND ostrio_pc_libs " -l${library}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/ostriolib.pc.in ${PROJECT_BINARY_DIR}/ostriolib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ostriolib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# A Debian package of everything above (and the CLI when it is built). Its dependencies are read
# off the installed binaries by dpkg-shlibdeps, so they are exactly the Debian libraries linked,
# and libsecret, which is loaded when first used.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ostriolib)
set(CPACK_PACKAGE_VENDOR "ostriolib")
set(CPACK_PACKAGE_CONTACT "ostriolib developers <ostriolib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client library and CLI for the Ostrio cloud review service")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Loaded at run time (the Secret Service keychain dlopens it), so dpkg-shlibdeps cannot see it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libsecret-1-0")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
