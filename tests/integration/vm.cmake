# What needs real DMA-bufs and a real EGL, on machines that have neither (tests/vm/README.md). Every program runs twice:
# fast_NAME on this machine's kernel with a stand-in for the device nodes, and under the rig's kernel, where several share
# a virtual machine: vm_MACHINE. Without the rig, because its packages cannot be fetched or there is no QEMU, they are
# skipped and say so; with ZEV_REQUIRE_RIG=1 packages that cannot be fetched are a failure.
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

add_test(NAME rig_scripts COMMAND ${rig}/check-scripts)
set_tests_properties(rig_scripts PROPERTIES LABELS unit TIMEOUT 60)

# zev_rig_test(NAME SOURCES ... LIBRARIES ... MACHINE MACHINE [ARGUMENTS ...] [VM_FUNCTIONS FUNCTION...] [ONLY_VM]
# [ONLY_FAST] [PRELOAD LIBRARY]):
# builds a program, registers fast_NAME, and has it run by vm_MACHINE, with these functions of it alone if they are
# given. What needs a kernel module has no fast tier.
function(zev_rig_test name)
    cmake_parse_arguments(arg "ONLY_VM;ONLY_FAST" "MACHINE;PRELOAD" "SOURCES;LIBRARIES;ARGUMENTS;VM_FUNCTIONS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    zev_target(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
    target_compile_definitions(${name} PRIVATE QT_NO_KEYWORDS ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
    set_target_properties(${name} PROPERTIES AUTOMOC ON)

    set(preload)
    if(arg_PRELOAD)
        set(preload --preload $<TARGET_FILE:${arg_PRELOAD}>)
        add_dependencies(${name} ${arg_PRELOAD})
    endif()

    # The driver is not built for ThreadSanitizer, which then sees races where there are none. AddressSanitizer cannot
    # have the stand-in loaded after itself unless told, and its leak check sees the driver's own.
    if(ZEV_SANITIZE STREQUAL "thread")
        return()
    endif()
    if(NOT arg_ONLY_VM)
        add_test(NAME fast_${name}
            COMMAND ${rig}/with-gl --preload $<TARGET_FILE:fakedmabuf> ${preload} $<TARGET_FILE:${name}>
                ${arg_ARGUMENTS})
        set_tests_properties(fast_${name} PROPERTIES
            LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig)
        zev_test_environment(fast_${name})
    endif()
    if(ZEV_SANITIZE OR arg_ONLY_FAST)
        if(ZEV_SANITIZE AND NOT arg_ONLY_VM)
            set_property(TEST fast_${name} APPEND PROPERTY
                ENVIRONMENT "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0")
        endif()
        return() # emulated and instrumented at once takes too long
    endif()
    set_property(GLOBAL APPEND PROPERTY zev_rig_${arg_MACHINE}
        -- ${rig}/with-gl ${preload} $<TARGET_FILE:${name}> ${arg_ARGUMENTS} ${arg_VM_FUNCTIONS})
endfunction()

# zev_rig_machine(MACHINE [MODULE "NAME=PARAMETERS"]): registers vm_MACHINE, which boots once and runs the programs given
# to it one after the other. A boot takes longer than many a program. They have taken two to six minutes each at a load
# average of 15 on two processors; the limits are for that.
function(zev_rig_machine machine)
    cmake_parse_arguments(arg "" "MODULE" "" ${ARGN})
    get_property(programs GLOBAL PROPERTY zev_rig_${machine})
    if(NOT programs)
        return()
    endif()
    set(module)
    if(arg_MODULE)
        set(module --module "${arg_MODULE}")
    endif()
    add_test(NAME vm_${machine} COMMAND ${rig}/boot ${module} ${rig}/series 200 ${programs})
    set_tests_properties(vm_${machine} PROPERTIES # emulated, only one at a time is fair to the others
        LABELS vm TIMEOUT 600 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig RESOURCE_LOCK vm PROCESSORS 2)
    zev_test_environment(vm_${machine})
    set_property(TEST vm_${machine} APPEND PROPERTY
        ENVIRONMENT "RIG_ARTIFACTS=${PROJECT_BINARY_DIR}/artifacts" "ZEV_RIG_TIMEOUT=560")
endfunction()

set(rig_sources ${rig}/dmamemory.cpp ${rig}/dmamemory.h ${rig}/externaltexture.cpp ${rig}/externaltexture.h
    ${rig}/testpicture.cpp ${rig}/testpicture.h)
zev_rig_test(tst_dmabufimages MACHINE memory
    SOURCES ${rig}/tst_dmabufimages.cpp ${rig_sources}
    LIBRARIES Zev::zevqt-mm Qt5::Gui Qt5::Multimedia Qt5::Test)
zev_rig_test(tst_dmabufstore MACHINE memory SOURCES ${rig}/tst_dmabufstore.cpp ${rig}/udmabuflimit.h
    LIBRARIES Zev::shm GTest::gtest_main)
zev_rig_test(tst_dmabufguards MACHINE memory SOURCES ${rig}/tst_dmabufguards.cpp
    LIBRARIES shm_testable GTest::gtest_main)
if(TARGET Zev::items)
    set(item_sources ${rig}/itemrenderer.cpp ${rig}/itemrenderer.h ${rig}/dmapublisher.cpp ${rig}/dmapublisher.h
        ${rig_sources})
    set(recorded_egl ${rig}/recordedegl.cpp ${rig}/recordedegl.h)
    zev_rig_test(tst_publishedframes MACHINE frames
        SOURCES ${rig}/tst_publishedframes.cpp ${rig}/payloadguard.cpp ${rig}/payloadguard.h ${recorded_egl}
            ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS})
    # In the virtual machine without what the kernel has no part in: where the picture is placed, more windows, shaders.
    zev_rig_test(tst_eglimageitem MACHINE item SOURCES ${rig}/tst_eglimageitem.cpp ${recorded_egl} ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS}
        VM_FUNCTIONS attributesAreTheFrames refusedImageIsUploadedAndSaysWhy aFrameWithoutStridesIsRefused
            aTextureThatIsRefusedIsSaidSo aFreshPublisherIsTriedAgain imagesCanBeSwitchedOff aHiddenItemImportsNothing
            holdsTheShownFrameAndNoOther imageAndTextureGoBeforeTheLock copiesMayGoWithoutAContext
            anImageOfTheApplicationsOwnIsLeftToIt survivesTheLossOfItsContext
            survivesAnotherWindow goesWithAFrameShownAndOneToCome)
    zev_rig_test(tst_eglimageleaks MACHINE item SOURCES ${rig}/tst_eglimageleaks.cpp ${recorded_egl} ${item_sources}
        LIBRARIES Zev::items Qt5::Test ${CMAKE_DL_LIBS})
    # With a window, and so with the scene graph's own render thread; the kernel has no part in what it is about.
    zev_rig_test(tst_eglimagewindow ONLY_FAST PRELOAD pbufferwindow
        SOURCES ${rig}/tst_eglimagewindow.cpp ${item_sources}
        LIBRARIES Zev::items Qt5::Test)
    # They stand before EGL where entry points are looked up, so their symbols have to be seen.
    set_target_properties(tst_publishedframes tst_eglimageitem tst_eglimageleaks PROPERTIES ENABLE_EXPORTS ON)
    if(ZEV_BUILD_EXAMPLES)
        zev_rig_test(tst_viewerframepath MACHINE frames
            SOURCES ${rig}/tst_viewerframepath.cpp integration/xvfbserver.cpp
            LIBRARIES Qt5::Gui Qt5::Test
            VM_FUNCTIONS imported:udmabuf imported:dma-heap)
        target_include_directories(tst_viewerframepath PRIVATE integration)
        target_compile_definitions(tst_viewerframepath PRIVATE
            VIEWER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-viewer"
            PUBLISHER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-testpublisher"
            PBUFFERWINDOW="$<TARGET_FILE:pbufferwindow>")
        add_dependencies(tst_viewerframepath zevqt-viewer zevqt-testpublisher pbufferwindow)
    endif()
endif()

if(ZEV_BUILD_TOOLS)
    zev_rig_test(tst_dmabufpublish MACHINE memory
        SOURCES ${rig}/tst_dmabufpublish.cpp integration/zevshm_driver.cpp
        LIBRARIES Zev::shm GTest::gtest_main)
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
    zev_rig_test(${test} ONLY_VM MACHINE cameras
        SOURCES ${rig}/${test}.cpp ${camera_sources}
        LIBRARIES Zev::zevqt-mm Zev::zevmm Qt5::Gui Qt5::Test)
endforeach()
if(ZEV_BUILD_TOOLS)
    zev_rig_test(tst_camerapublish ONLY_VM MACHINE cameras
        SOURCES ${rig}/tst_camerapublish.cpp ${rig}/virtualcamera.cpp ${rig}/virtualcamera.h
        LIBRARIES Zev::shm Qt5::Core Qt5::Test)
    target_compile_definitions(tst_camerapublish PRIVATE ZEVSHM_PROGRAM="$<TARGET_FILE:zevshm>")
    add_dependencies(tst_camerapublish zevshm)
endif()
if(TARGET Zev::items)
    zev_rig_test(tst_cameraitem ONLY_VM MACHINE pictures
        SOURCES ${rig}/tst_cameraitem.cpp ${rig}/colorbars.cpp ${rig}/colorbars.h ${recorded_egl} ${camera_sources}
            ${rig}/itemrenderer.cpp ${rig}/itemrenderer.h
        LIBRARIES Zev::items Zev::zevmm Qt5::Test ${CMAKE_DL_LIBS})
    set_target_properties(tst_cameraitem PROPERTIES ENABLE_EXPORTS ON)
    zev_rig_test(tst_camerawindow ONLY_VM MACHINE pictures PRELOAD pbufferwindow
        SOURCES ${rig}/tst_camerawindow.cpp ${rig}/colorbars.cpp ${rig}/colorbars.h ${rig}/virtualcamera.cpp
            ${rig}/virtualcamera.h
        LIBRARIES Zev::items Zev::zevmm Qt5::Test)
    if(ZEV_BUILD_EXAMPLES)
        zev_rig_test(tst_viewerofcamera ONLY_VM MACHINE pictures
            SOURCES ${rig}/tst_viewerofcamera.cpp ${rig}/colorbars.cpp ${rig}/colorbars.h ${rig}/virtualcamera.cpp
                ${rig}/virtualcamera.h integration/xvfbserver.cpp
            LIBRARIES Zev::zevmm Qt5::Gui Qt5::Test)
        target_include_directories(tst_viewerofcamera PRIVATE integration)
        target_compile_definitions(tst_viewerofcamera PRIVATE
            VIEWER="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevqt-viewer"
            PBUFFERWINDOW="$<TARGET_FILE:pbufferwindow>")
        add_dependencies(tst_viewerofcamera zevqt-viewer pbufferwindow)
    endif()
endif()

foreach(machine memory frames item)
    zev_rig_machine(${machine})
endforeach()
foreach(machine cameras pictures)
    zev_rig_machine(${machine} MODULE ${rig_cameras})
endforeach()
