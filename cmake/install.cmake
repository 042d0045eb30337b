# What a device or a daemon author takes away: libraries, headers, CMake package, pkg-config file,
# and Debian packages of the same.
include(CMakePackageConfigHelpers)

set(installed_libraries kest_utils)
set(pc_platform)
if(KEST_WITH_PLATFORM)
    list(APPEND installed_libraries kest_platform)
    set(pc_platform " -lkest_platform")
endif()

install(TARGETS ${installed_libraries} kest_platform_headers EXPORT kest_utils-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/kest platform/include/kest
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN *.h)
install(PROGRAMS tools/kest_symbolize DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT development)
if(TARGET kest_ipc_cli AND KEST_WITH_PLATFORM)
    install(TARGETS kest_ipc_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kest_utils)
install(EXPORT kest_utils-targets NAMESPACE kest:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/kest_utils-config.cmake.in kest_utils-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(kest_utils-config-version.cmake COMPATIBILITY SameMajorVersion)
# Relative, so that an installation may be moved, or made elsewhere than was configured.
file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/kest_utils.pc.in kest_utils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kest_utils-config.cmake
    ${PROJECT_BINARY_DIR}/kest_utils-config-version.cmake
    DESTINATION ${package_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/kest_utils.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "the kest_utils developers <kest-utils@localhost>")
set(CPACK_PACKAGE_VENDOR "kest_utils")
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkest-utils${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkest-utils-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers and build files of libkest_utils.")
include(CPack)
