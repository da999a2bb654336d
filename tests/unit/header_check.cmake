# Every public header compiles as the first and only include of a file: those of the library as an application would see
# them, those of the C libraries as C and as C++. Compiling is the test.
set(header_folder ${CMAKE_CURRENT_BINARY_DIR}/header-check)
set(header_sources)
# All there are: one that is forgotten in a list would go unchecked. scripts/build configures every time, so that the
# build itself need not look for new ones.
file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR}/include/zevqt-mm ${PROJECT_SOURCE_DIR}/include/zevqt-mm/*.h)
foreach(header ${headers})
    file(CONFIGURE OUTPUT ${header_folder}/${header}.cpp CONTENT
        "#include <zevqt-mm/${header}>\n#include <zevqt-mm/${header}>\n")
    list(APPEND header_sources ${header_folder}/${header}.cpp)
endforeach()
add_library(zevqt-mm-header-check OBJECT ${header_sources})
zev_target(zevqt-mm-header-check)
target_link_libraries(zevqt-mm-header-check PRIVATE Zev::zevqt-mm)

set(header_sources)
foreach(header shm_types shm_reader shm_writer)
    foreach(language c cpp)
        file(CONFIGURE OUTPUT ${header_folder}/${header}.${language} CONTENT
            "#include <shm/${header}.h>\n#include <shm/${header}.h>\nint check_${header}_${language}(void);\n")
        list(APPEND header_sources ${header_folder}/${header}.${language})
    endforeach()
endforeach()
add_library(shm-header-check OBJECT ${header_sources})
zev_target(shm-header-check)
target_link_libraries(shm-header-check PRIVATE Zev::shm)

set(header_sources)
foreach(header cameras capturebase dmaeglcapture memorycapture)
    file(CONFIGURE OUTPUT ${header_folder}/zevmm_${header}.cpp CONTENT
        "#include <zevmm/v4l2/${header}.h>\n#include <zevmm/v4l2/${header}.h>\n")
    list(APPEND header_sources ${header_folder}/zevmm_${header}.cpp)
endforeach()
add_library(zevmm-header-check OBJECT ${header_sources})
zev_target(zevmm-header-check)
target_link_libraries(zevmm-header-check PRIVATE Zev::zevmm)
