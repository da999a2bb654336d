# Installs what find_package(zevqt-mm) needs: the targets of all zev_library() calls as Zev::NAME, the package file that
# finds what they depend on, and its version. To be included after the last of those calls.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

# Platform libraries that were found on this system are not part of the package: an application finds them the same way.
set(ZEVQTMM_SYSTEM_LIBRARIES)
foreach(library IN LISTS ZEV_SYSTEM_LIBRARIES)
    string(REGEX MATCH "^([^:]+):(.+)$" matched ${library})
    string(APPEND ZEVQTMM_SYSTEM_LIBRARIES "pkg_check_modules(${CMAKE_MATCH_1} REQUIRED IMPORTED_TARGET ${CMAKE_MATCH_2})\n")
endforeach()
if(ZEVQTMM_SYSTEM_LIBRARIES)
    string(PREPEND ZEVQTMM_SYSTEM_LIBRARIES "find_dependency(PkgConfig)\n")
endif()

set(ZEV_PACKAGE_QML_DIR ${ZEV_INSTALL_QMLDIR})
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/zevqt-mm)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zevqt-mm-config.cmake.in
    ${PROJECT_BINARY_DIR}/zevqt-mm-config.cmake INSTALL_DESTINATION ${package_folder}
    PATH_VARS ZEV_PACKAGE_QML_DIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zevqt-mm-config-version.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zevqt-mm-config.cmake ${PROJECT_BINARY_DIR}/zevqt-mm-config-version.cmake
    DESTINATION ${package_folder})
install(EXPORT zevqt-mm-targets NAMESPACE Zev:: DESTINATION ${package_folder})
