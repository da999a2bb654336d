# FindMagicEnum: the header-only library magic_enum, as the target MagicEnum::MagicEnum.
#
# MAGIC_ENUM_INCLUDE_DIR (cache) is searched first. Its default is where scripts/fetch-magic-enum unpacks the header on
# systems that do not package it. Packages install either magic_enum.hpp or magic_enum/magic_enum.hpp: the target
# defines ZEV_MAGIC_ENUM_HEADER, the name to include.
set(MAGIC_ENUM_INCLUDE_DIR "${PROJECT_SOURCE_DIR}/build/deps/usr/include" CACHE PATH
    "Folder that holds magic_enum.hpp or magic_enum/magic_enum.hpp")

set(MagicEnum_header)
foreach(candidate magic_enum/magic_enum.hpp magic_enum.hpp)
    unset(MagicEnum_folder)
    find_path(MagicEnum_folder ${candidate} HINTS ${MAGIC_ENUM_INCLUDE_DIR} NO_CACHE)
    if(MagicEnum_folder)
        set(MagicEnum_header ${candidate})
        break()
    endif()
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MagicEnum
    REQUIRED_VARS MagicEnum_header MagicEnum_folder
    REASON_FAILURE_MESSAGE "magic_enum.hpp is neither in ${MAGIC_ENUM_INCLUDE_DIR} nor in the system's include folders: \
run scripts/fetch-magic-enum, or install magic_enum, or set MAGIC_ENUM_INCLUDE_DIR to the folder that holds it.")

if(MagicEnum_FOUND AND NOT TARGET MagicEnum::MagicEnum)
    add_library(MagicEnum::MagicEnum INTERFACE IMPORTED)
    set_target_properties(MagicEnum::MagicEnum PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${MagicEnum_folder}"
        INTERFACE_COMPILE_DEFINITIONS "ZEV_MAGIC_ENUM_HEADER=<${MagicEnum_header}>")
endif()
