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
