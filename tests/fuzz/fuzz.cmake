# libFuzzer, which comes with clang: built by it beside whatever builds the rest, with the address and undefined-behaviour
# sanitizers. CTest runs the corpus and a short while beyond it; ./test --soak runs them longer.
find_program(ZEV_CLANGXX NAMES clang++ clang++-19 clang++-18 clang++-17 clang++-16 clang++-15 clang++-14)
if(NOT ZEV_CLANGXX)
    message(STATUS "No clang++: the fuzzers are not built; install clang")
    return()
endif()
if(ZEV_SANITIZE OR CMAKE_CROSSCOMPILING OR NOT CMAKE_GENERATOR MATCHES Ninja)
    return() # once is enough, here, and has its own sanitizers
endif()

# zev_fuzzer(NAME corpus folder, sources of the library): builds tests/fuzz/NAME.cpp with them, registers it as a test.
function(zev_fuzzer name corpus)
    set(flags -std=c++17 -g -O1 -Wall -Wextra -fno-omit-frame-pointer -fno-sanitize-recover=all
        -fsanitize=fuzzer,address,undefined -DSHM_TEST_ATOMIC="steps.h"
        -I${PROJECT_SOURCE_DIR}/platform/shm/include -I${PROJECT_SOURCE_DIR}/platform/shm/src
        -I${PROJECT_SOURCE_DIR}/tests/model)
    set(sources ${PROJECT_SOURCE_DIR}/tests/fuzz/${name}.cpp ${PROJECT_SOURCE_DIR}/tests/model/steps.cpp)
    foreach(source IN LISTS ARGN)
        list(APPEND sources ${PROJECT_SOURCE_DIR}/platform/shm/src/${source}.cpp)
    endforeach()
    set(objects "")
    foreach(source IN LISTS sources)
        get_filename_component(base ${source} NAME_WE)
        set(object ${CMAKE_CURRENT_BINARY_DIR}/fuzz/${name}.dir/${base}.o)
        add_custom_command(OUTPUT ${object}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/fuzz/${name}.dir
            COMMAND ${CMAKE_CXX_COMPILER_LAUNCHER} ${ZEV_CLANGXX} ${flags} -MD -MF ${object}.d -c ${source} -o ${object}
            DEPENDS ${source} DEPFILE ${object}.d VERBATIM)
        list(APPEND objects ${object})
    endforeach()
    set(program ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name})
    add_custom_command(OUTPUT ${program}
        COMMAND ${ZEV_CLANGXX} -fsanitize=fuzzer,address,undefined ${objects} -o ${program} -lpthread
        DEPENDS ${objects} VERBATIM)
    add_custom_target(${name} ALL DEPENDS ${program})
    add_test(NAME ${name} COMMAND ${PROJECT_SOURCE_DIR}/tests/fuzz/run ${program} ${corpus} -runs=200000 -max_total_time=10)
    set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()

zev_fuzzer(fuzz_handshake ${CMAKE_CURRENT_LIST_DIR}/corpus/handshake handshake_check layout)
zev_fuzzer(fuzz_memory ${CMAKE_CURRENT_LIST_DIR}/corpus/memory
    audio_ring audio_timeline dmabuf error frame_order handshake handshake_check history layout memory memory_check messages
    names process_id reader reader_audio reader_dmabufs reader_video rendezvous writer_store)
