# The command-line tool as real processes.
if(ZEV_BUILD_TOOLS)
    pkg_check_modules(FFMPEG_MEDIA REQUIRED IMPORTED_TARGET
        libavformat libavcodec libswscale libswresample libavutil)
    foreach(name errors info publish memory media network record relay dump top)
        zev_test(tst_zevshm_${name}
            SOURCES
                integration/tst_zevshm_${name}.cpp
                integration/zevshm_driver.cpp
                integration/zevshm_media.cpp
            LIBRARIES zevshm-core zevshm-pattern Zev::shm PkgConfig::FFMPEG_MEDIA Qt5::Core GTest::gtest_main
            LABEL integration)
        target_compile_definitions(tst_zevshm_${name} PRIVATE ZEVSHM_PROGRAM="$<TARGET_FILE:zevshm>")
        add_dependencies(tst_zevshm_${name} zevshm)
    endforeach()
    # Those that run in real time by themselves, so that neither part takes long on a machine that has much to do.
    set(in_real_time "*Whole:*Flash:*Disturbed:*BackIsCounted")
    set_property(TEST tst_zevshm_record APPEND PROPERTY ENVIRONMENT "GTEST_FILTER=-${in_real_time}")
    add_test(NAME tst_zevshm_record_sync COMMAND tst_zevshm_record "--gtest_filter=${in_real_time}")
    set_tests_properties(tst_zevshm_record_sync PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
    zev_test_environment(tst_zevshm_record_sync)
    find_package(Python3 COMPONENTS Interpreter)
    if(Python3_FOUND)
        set(help "$<TARGET_FILE:zevshm>,--help")
        foreach(command publish list info snapshot record relay dump top)
            list(APPEND help "$<TARGET_FILE:zevshm>,${command},--help")
        endforeach()
        add_test(NAME manpage_zevshm COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/manpages.py
            ${PROJECT_SOURCE_DIR}/docs/man/zevshm.1 ${help})
        set_tests_properties(manpage_zevshm PROPERTIES LABELS integration TIMEOUT 60)
        zev_test_environment(manpage_zevshm)
        find_program(BASH_PROGRAM bash)
        if(BASH_PROGRAM)
            add_test(NAME completion_zevshm COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/completion.py
                ${PROJECT_SOURCE_DIR}/tools/zevshm/completion/zevshm ${PROJECT_SOURCE_DIR}/docs/man/zevshm.1
                $<TARGET_FILE:zevshm>)
            set_tests_properties(completion_zevshm PROPERTIES LABELS integration TIMEOUT 120)
            zev_test_environment(completion_zevshm)
        endif()
    endif()
    foreach(name record relay dump top)
        target_sources(tst_zevshm_${name} PRIVATE
            integration/zevshm_ownstore.cpp integration/zevshm_recording.cpp)
    endforeach()
    target_sources(tst_zevshm_network PRIVATE integration/rtspserver.cpp integration/streamsender.cpp)
endif()
