# The frame store under stress, with real processes.
zev_test(shm_torture SOURCES integration/shm_torture.cpp LIBRARIES shm_testable LABEL integration)
zev_test(tst_shm_params SOURCES integration/tst_shm_params.cpp LIBRARIES Zev::shm GTest::gtest LABEL integration)
zev_test(tst_shm_store SOURCES integration/tst_shm_store.cpp LIBRARIES Zev::shm GTest::gtest_main LABEL integration)
zev_test(tst_shm_lent SOURCES integration/tst_shm_lent.cpp LIBRARIES Zev::shm GTest::gtest_main LABEL integration)
zev_test(tst_shm_processes SOURCES integration/tst_shm_processes.cpp LIBRARIES Zev::shm GTest::gtest_main
    LABEL integration)
zev_test(shm_faults SOURCES integration/shm_faults.cpp LIBRARIES shm_stepped LABEL integration)
zev_test(tst_shm_hostile SOURCES integration/tst_shm_hostile.cpp LIBRARIES shm_testable GTest::gtest LABEL integration)
# Also as another user, when it is run by root.
zev_test(tst_shm_rights SOURCES integration/tst_shm_rights.cpp LIBRARIES shm_testable GTest::gtest LABEL integration)
zev_test(tst_shm_limits SOURCES integration/tst_shm_limits.cpp LIBRARIES Zev::shm GTest::gtest LABEL integration)
# A reader for compare/compare.py.
zev_test(frame_lines SOURCES compare/frame_lines.c LIBRARIES Zev::shm NO_TEST)
if(TARGET gstzevshm)
    pkg_get_variable(gst_plugins gstreamer-1.0 pluginsdir)
    pkg_check_modules(GSTREAMER_APP REQUIRED IMPORTED_TARGET gstreamer-app-1.0 gstreamer-video-1.0)
    foreach(name tst_gstreamersink tst_gstreamersource)
        # The thread sanitizer does not see GLib's locks.
        zev_test(${name} NO_TSAN SOURCES integration/${name}.cpp integration/gstreamerrig.cpp
            LIBRARIES Zev::shm PkgConfig::GSTREAMER_APP GTest::gtest LABEL integration)
        if(TARGET ${name})
            target_compile_definitions(${name} PRIVATE
                ZEV_GST_PLUGIN_PATH="$<TARGET_FILE_DIR:gstzevshm>" ZEV_GST_SYSTEM_PLUGINS="${gst_plugins}")
            add_dependencies(${name} gstzevshm)
        endif()
    endforeach()
    zev_test(tst_gstclockmap SOURCES unit/tst_gstclockmap.cpp ../gstreamer/clockmap.cpp LIBRARIES GTest::gtest_main)
    target_include_directories(tst_gstclockmap PRIVATE ../gstreamer)
endif()
