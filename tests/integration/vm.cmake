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

add_library(pbufferwindow MODULE ${rig}/pbufferwindow.c)
zev_target(pbufferwindow)
target_link_libraries(pbufferwindow PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(pbufferwindow PROPERTIES PREFIX "" C_EXTENSIONS ON)

# zev_rig_test(NAME SOURCES ... LIBRARIES ... [ARGUMENTS ...] [MODULE "NAME=PARAMETERS"]
#              [VM_PARTS PART=FUNCTION[,FUNCTION]... ...]):
# builds a program, registers fast_NAME and vm_NAME. What needs a kernel module has no fast tier. With parts there is a
# vm_NAME_PART that runs these functions of the program for each of them: emulated on a busy machine a boot and half a
# minute of work take minutes.
function(zev_rig_test name)
    cmake_parse_arguments(arg "" "MODULE" "SOURCES;LIBRARIES;ARGUMENTS;VM_PARTS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    zev_target(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
    target_compile_definitions(${name} PRIVATE QT_NO_KEYWORDS ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
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
    set(module)
    if(arg_MODULE)
        set(module --module "${arg_MODULE}")
    endif()
    if(NOT arg_VM_PARTS)
        set(arg_VM_PARTS "=")
    endif()
    foreach(part IN LISTS arg_VM_PARTS)
        string(REGEX MATCH "^([^=]*)=(.*)$" part "${part}")
        set(test vm_${name})
        if(CMAKE_MATCH_1)
            string(APPEND test _${CMAKE_MATCH_1})
        endif()
        string(REPLACE "," ";" functions "${CMAKE_MATCH_2}")
        # Emulated on a busy machine: a minute is normal, and only one at a time is fair to the others.
        add_test(NAME ${test}
            COMMAND ${rig}/boot ${module} ${rig}/with-gl $<TARGET_FILE:${name}> ${arg_ARGUMENTS} ${functions})
        set_tests_properties(${test} PROPERTIES
            LABELS vm TIMEOUT 300 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig RESOURCE_LOCK vm PROCESSORS 2)
        zev_test_environment(${test})
        set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT "RIG_ARTIFACTS=${PROJECT_BINARY_DIR}/artifacts")
    endforeach()
endfunction()

set(rig_sources ${rig}/dmamemory.cpp ${rig}/dmamemory.h ${rig}/externaltexture.cpp ${rig}/externaltexture.h
    ${rig}/testpicture.cpp ${rig}/testpicture.h)
zev_rig_test(tst_dmabufimages
    SOURCES ${rig}/tst_dmabufimages.cpp ${rig_sources}
    LIBRARIES Zev::zevqt-mm Qt5::Gui Qt5::Multimedia Qt5::Test)
zev_rig_test(tst_dmabufstore SOURCES ${rig}/tst_dmabufstore.cpp LIBRARIES Zev::shm GTest::gtest_main)
if(TARGET Zev::items)
    set(item_sources ${rig}/itemrenderer.cpp ${rig}/itemrenderer.h ${rig}/dmapublisher.cpp ${rig}/dmapublisher.h
        ${rig_sources})
    set(recorded_egl ${rig}/recordedegl.cpp ${rig}/recordedegl.h)
    zev_rig_test(tst_publishedframes
        SOURCES ${rig}/tst_publishedframes.cpp ${rig}/payloadguard.cpp ${rig}/payloadguard.h ${recorded_egl}
            ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS}
        VM_PARTS colors=publishedFrames,plainMemoryIsUploadedAndSaysWhy
            untouched=noByteOfAFrameIsTouched,goesWhileFramesAreInFlight
            nosignal=standsInBetweenTwoPublishers)
    # In the virtual machine without what the kernel has no part in: where the picture is placed.
    zev_rig_test(tst_eglimageitem SOURCES ${rig}/tst_eglimageitem.cpp ${recorded_egl} ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS}
        VM_PARTS
            images=attributesAreTheFrames,refusedImageIsUploadedAndSaysWhy,aFreshPublisherIsTriedAgain,imagesCanBeSwitchedOff,aHiddenItemImportsNothing
            life=holdsTheShownFrameAndNoOther,copiesMayGoWithoutAContext,anImageOfTheApplicationsOwnIsLeftToIt,survivesTheLossOfItsContext,survivesAnotherWindow,goesWithAFrameShownAndOneToCome)
    zev_rig_test(tst_eglimageleaks SOURCES ${rig}/tst_eglimageleaks.cpp ${recorded_egl} ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS}
        VM_PARTS frames=nothingIsLeftAfter500Frames restarts=nothingIsLeftAfter100Restarts)
    # They stand before EGL where entry points are looked up, so their symbols have to be seen.
    set_target_properties(tst_publishedframes tst_eglimageitem tst_eglimageleaks PROPERTIES ENABLE_EXPORTS ON)
    if(ZEV_BUILD_EXAMPLES)
        zev_rig_test(tst_viewerframepath
            SOURCES ${rig}/tst_viewerframepath.cpp integration/xvfbserver.cpp
            LIBRARIES Qt5::Gui Qt5::Test
            VM_PARTS udmabuf=imported:udmabuf dma-heap=imported:dma-heap)
        target_include_directories(tst_viewerframepath PRIVATE integration)
        target_compile_definitions(tst_viewerframepath PRIVATE
            VIEWER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-viewer"
            PUBLISHER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-testpublisher"
            PBUFFERWINDOW="$<TARGET_FILE:pbufferwindow>")
        add_dependencies(tst_viewerframepath zevqt-viewer zevqt-testpublisher pbufferwindow)
    endif()
endif()

if(ZEV_BUILD_TOOLS)
    zev_rig_test(tst_dmabufpublish
        SOURCES ${rig}/tst_dmabufpublish.cpp integration/zevshm_driver.cpp
        LIBRARIES Zev::shm GTest::gtest_main
        VM_PARTS kinds=--gtest_filter=*info*:*huge users=--gtest_filter=*otherUsers*)
    target_include_directories(tst_dmabufpublish PRIVATE integration)
    target_compile_definitions(tst_dmabufpublish PRIVATE
        ZEVSHM_PROGRAM="$<TARGET_FILE:zevshm>" ZEVSHM_DRIVER_LIMIT_MS=60000)
    add_dependencies(tst_dmabufpublish zevshm)
endif()

# A virtual camera of each flavour of the API: /dev/video0 and /dev/video1.
set(rig_cameras "vivid=n_devs=2 node_types=0x1,0x1 multiplanar=1,2")
set(camera_sources ${rig}/camerafixture.cpp ${rig}/camerafixture.h ${rig}/virtualcamera.cpp ${rig}/virtualcamera.h
    ${rig}/externaltexture.cpp ${rig}/externaltexture.h)
foreach(test tst_cameracapture tst_camerabuffers tst_camerarecovery)
    zev_rig_test(${test} MODULE ${rig_cameras}
        SOURCES ${rig}/${test}.cpp ${camera_sources}
        LIBRARIES Zev::zevqt-mm Zev::zevmm Qt5::Gui Qt5::Test)
endforeach()
if(ZEV_BUILD_TOOLS)
    zev_rig_test(tst_camerapublish MODULE ${rig_cameras}
        SOURCES ${rig}/tst_camerapublish.cpp ${rig}/virtualcamera.cpp ${rig}/virtualcamera.h
        LIBRARIES Zev::shm Qt5::Core Qt5::Test)
    target_compile_definitions(tst_camerapublish PRIVATE ZEVSHM_PROGRAM="$<TARGET_FILE:zevshm>")
    add_dependencies(tst_camerapublish zevshm)
endif()
if(TARGET Zev::items)
    zev_rig_test(tst_cameraitem MODULE ${rig_cameras}
        SOURCES ${rig}/tst_cameraitem.cpp ${rig}/colorbars.cpp ${rig}/colorbars.h ${recorded_egl} ${camera_sources}
            ${rig}/itemrenderer.cpp ${rig}/itemrenderer.h
        LIBRARIES Zev::items Zev::zevmm Qt5::Test ${CMAKE_DL_LIBS}
        VM_PARTS hooks=opensBetweenTheHooks,startsAHundredTimes,deliversTheNewest
            picture=showsTheColors,survivesTheLossOfItsContext,isStoppedWhenNobodyShowsIt,goneAndBack)
    set_target_properties(tst_cameraitem PROPERTIES ENABLE_EXPORTS ON)
    if(ZEV_BUILD_EXAMPLES)
        zev_rig_test(tst_viewerofcamera MODULE ${rig_cameras}
            SOURCES ${rig}/tst_viewerofcamera.cpp ${rig}/colorbars.cpp ${rig}/colorbars.h ${rig}/virtualcamera.cpp
                ${rig}/virtualcamera.h integration/xvfbserver.cpp
            LIBRARIES Zev::zevmm Qt5::Gui Qt5::Test
            VM_PARTS picture=showsIt return=outlivesDisconnection refusal=aBusyOneEndsIt,listsThem)
        target_include_directories(tst_viewerofcamera PRIVATE integration)
        target_compile_definitions(tst_viewerofcamera PRIVATE
            VIEWER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-viewer"
            PBUFFERWINDOW="$<TARGET_FILE:pbufferwindow>")
        add_dependencies(tst_viewerofcamera zevqt-viewer pbufferwindow)
    endif()
endif()
