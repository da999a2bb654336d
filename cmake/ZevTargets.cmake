# zev_target(NAME): what every target of ours has in common. Nothing is set globally, so that the project can
# be added to a larger build without changing it.
function(zev_target target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        C_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON
        COMPILE_WARNING_AS_ERROR ${ZEV_WERROR})
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef
        $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>)
    if(ZEV_SANITIZE)
        target_compile_options(${target} PRIVATE
            -fsanitize=${ZEV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${ZEV_SANITIZE})
    endif()
endfunction()

# zev_library(NAME VERSION major.minor.patch): a shared library of ours: SONAME from the major version, installed
# with its alias Zev::NAME.
function(zev_library target)
    cmake_parse_arguments(arg "" "VERSION" "" ${ARGN})
    zev_target(${target})
    string(REGEX MATCH "^[0-9]+" major "${arg_VERSION}")
    set_target_properties(${target} PROPERTIES VERSION ${arg_VERSION} SOVERSION ${major})
    # Our libraries find each other beside themselves, in the build tree and where they are installed.
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    add_library(Zev::${target} ALIAS ${target})
    install(TARGETS ${target} EXPORT zevqt-mm-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()

# zev_objects_library(NAME VERSION major.minor.patch SOURCES ...): a library of platform/NAME with include/NAME, whose
# sources are compiled once, as NAME_objects: for the library and for NAME_testable, which tests of what it hides link to.
function(zev_objects_library target)
    cmake_parse_arguments(arg "" "VERSION" "SOURCES" ${ARGN})
    add_library(${target}_objects OBJECT ${arg_SOURCES})
    zev_target(${target}_objects)
    target_include_directories(${target}_objects PRIVATE include)
    target_link_libraries(${target}_objects PRIVATE Threads::Threads)

    add_library(${target} SHARED $<TARGET_OBJECTS:${target}_objects>)
    zev_library(${target} VERSION ${arg_VERSION})
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE Threads::Threads)
    install(DIRECTORY include/${target} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

    if(ZEV_BUILD_TESTS)
        add_library(${target}_testable STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${target}_objects>)
        zev_target(${target}_testable)
        set_target_properties(${target}_testable PROPERTIES LINKER_LANGUAGE CXX)
        target_include_directories(${target}_testable PUBLIC include src)
        target_link_libraries(${target}_testable PUBLIC Threads::Threads)
    endif()
endfunction()

# zev_platform_library(NAME): the target Zev::NAME, of platform/NAME or, with the option ZEV_SYSTEM_NAME, of an installed
# libNAME that pkg-config finds.
function(zev_platform_library name)
    string(MAKE_C_IDENTIFIER ${name} id)
    string(TOUPPER ${id} id)
    option(ZEV_SYSTEM_${id} "Use an installed lib${name} instead of platform/${name}" OFF)
    if(NOT ZEV_SYSTEM_${id})
        add_subdirectory(platform/${name})
        return()
    endif()
    if(ZEV_BUILD_TESTS)
        message(FATAL_ERROR "ZEV_SYSTEM_${id}: the tests look into platform/${name}. "
            "Configure with -DZEV_BUILD_TESTS=OFF to build against an installed lib${name}.")
    endif()
    pkg_check_modules(${id} REQUIRED IMPORTED_TARGET GLOBAL lib${name})
    add_library(Zev::${name} ALIAS PkgConfig::${id})
    set(ZEV_SYSTEM_LIBRARIES ${ZEV_SYSTEM_LIBRARIES} ${id}:lib${name} PARENT_SCOPE)
endfunction()

# zev_pkg_config(NAME DESCRIPTION text [REQUIRES modules]): installs libNAME.pc, by which another build finds the library
# that the target NAME is. It says where everything lies from where it lies itself, so that a tree can be moved.
function(zev_pkg_config name)
    cmake_parse_arguments(arg "" "DESCRIPTION" "REQUIRES" ${ARGN})
    get_target_property(version ${name} VERSION)
    list(JOIN arg_REQUIRES " " requires)
    set(folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH prefix ${folder} ${CMAKE_INSTALL_PREFIX})
    file(RELATIVE_PATH libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
    file(RELATIVE_PATH includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/platform-library.pc.in lib${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lib${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
