# The level function with fewer of the processor's vectors than the library would use, for tests and benchmarks:
# av_audio_level_calc_vectors0 and av_audio_level_calc_vectors1 (see AUDIO_LEVEL_VECTORS in audio_level.c).
include_guard(GLOBAL)
foreach(vectors 0 1)
    set(variant audio-level-vectors${vectors})
    add_library(${variant} STATIC EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/src/audio_level.c)
    zev_target(${variant})
    target_include_directories(${variant} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/include)
    target_compile_definitions(${variant} PRIVATE
        AUDIO_LEVEL_VECTORS=${vectors} av_audio_level_calc=av_audio_level_calc_vectors${vectors})
    target_link_libraries(${variant} PUBLIC m)
endforeach()
