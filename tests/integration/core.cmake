# The video road on a real store.
set(integration ${CMAKE_CURRENT_LIST_DIR})
zev_test(tst_sharedmemoryroad LABEL integration SOURCES ${integration}/tst_sharedmemoryroad.cpp
    LIBRARIES zevqt-mm-objects Zev::shm Qt5::Test PkgConfig::FFMPEG)
