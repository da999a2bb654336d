# What needs real DMA-bufs and a real EGL, on machines that have neither (tests/vm/README.md). Every program runs twice:
# fast_NAME on this machine's kernel with a stand-in for the device nodes, vm_NAME under the rig's kernel. Without the
# rig, because its packages cannot be fetched or there is no QEMU, they are skipped and say so.
set(rig ${PROJECT_SOURCE_DIR}/tests/vm)

add_test(NAME rig_setup COMMAND ${rig}/setup)
set_tests_properties(rig_setup PROPERTIES
    LABELS "vm;integration" TIMEOUT 600 SKIP_RETURN_CODE 77 FIXTURES_SETUP rig)

add_library(fakedmabuf MODULE ${rig}/fakedmabuf.c)
zev_target(fakedmabuf)
set_target_properties(fakedmabuf PROPERTIES PREFIX "" C_EXTENSIONS ON)

# zev_rig_test(NAME SOURCES ... LIBRARIES ... [ARGUMENTS ...] [MODULE "NAME=PARAMETERS"]): builds a program, registers
# fast_NAME and vm_NAME. What needs a kernel module has no fast tier.
function(zev_rig_test name)
    cmake_parse_arguments(arg "" "MODULE" "SOURCES;LIBRARIES;ARGUMENTS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    zev_target(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
    target_compile_definitions(${name} PRIVATE QT_NO_KEYWORDS)
    set_target_properties(${name} PROPERTIES AUTOMOC ON)

    # The driver is not built for ThreadSanitizer, which then sees races where there are none. AddressSanitizer cannot
    # have the stand-in loaded after itself unless told, and its leak check sees the driver's own.
    if(ZEV_SANITIZE STREQUAL "thread")
        return()
    endif()
    if(NOT arg_MODULE)
        add_test(NAME fast_${name}
            COMMAND ${rig}/with-gl --preload $<TARGET_FILE:fakedmabuf> $<TARGET_FILE:${name}> ${arg_ARGUMENTS})
        set_tests_properties(fast_${name} PROPERTIES
            LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig)
        zev_test_environment(fast_${name})
    endif()
    if(ZEV_SANITIZE)
        if(NOT arg_MODULE)
            set_property(TEST fast_${name} APPEND PROPERTY
                ENVIRONMENT "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0")
        endif()
        return() # emulated and instrumented at once takes too long
    endif()
    # Emulated on a busy machine: a minute is normal, and only one at a time is fair to the others.
    set(module)
    if(arg_MODULE)
        set(module --module "${arg_MODULE}")
    endif()
    add_test(NAME vm_${name} COMMAND ${rig}/boot ${module} ${rig}/with-gl $<TARGET_FILE:${name}> ${arg_ARGUMENTS})
    set_tests_properties(vm_${name} PROPERTIES
        LABELS vm TIMEOUT 300 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig RESOURCE_LOCK vm PROCESSORS 2)
    zev_test_environment(vm_${name})
endfunction()

set(rig_sources ${rig}/dmamemory.cpp ${rig}/dmamemory.h ${rig}/externaltexture.cpp ${rig}/externaltexture.h
    ${rig}/testpicture.cpp ${rig}/testpicture.h)
zev_rig_test(tst_dmabufimages
    SOURCES ${rig}/tst_dmabufimages.cpp ${rig_sources}
    LIBRARIES Zev::zevqt-mm Qt5::Gui Qt5::Multimedia Qt5::Test)
zev_rig_test(tst_dmabufstore SOURCES ${rig}/tst_dmabufstore.cpp LIBRARIES Zev::shm GTest::gtest_main)
if(TARGET Zev::items)
    zev_rig_test(tst_eglimageitem
        SOURCES ${rig}/tst_eglimageitem.cpp ${rig}/dmapublisher.cpp ${rig}/dmapublisher.h ${rig_sources}
        LIBRARIES Zev::items Qt5::Test)
endif()

# A virtual camera of each flavour of the API: /dev/video0 and /dev/video1.
set(rig_cameras "vivid=n_devs=2 node_types=0x1,0x1 multiplanar=1,2")
set(camera_sources ${rig}/camerafixture.cpp ${rig}/camerafixture.h ${rig}/virtualcamera.cpp ${rig}/virtualcamera.h
    ${rig}/externaltexture.cpp ${rig}/externaltexture.h)
foreach(test tst_cameracapture tst_camerarecovery)
    zev_rig_test(${test} MODULE ${rig_cameras}
        SOURCES ${rig}/${test}.cpp ${camera_sources}
        LIBRARIES Zev::zevqt-mm Zev::zevmm Qt5::Gui Qt5::Test)
endforeach()
