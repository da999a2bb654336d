#ifndef ZEVQTMM_TESTS_DMAPUBLISHER_H
#define ZEVQTMM_TESTS_DMAPUBLISHER_H

#include <QtCore/QByteArray>

#include <shm/shm_writer.h>

#include <sys/types.h>

/*! What a publisher is to publish: the test picture, again and again. */
struct DmaPublication
{
    QByteArray memory; // a memory kind of the store
    int pixelFormat = SHM_PIXEL_FORMAT_NV12;
    shm_matrix matrix = SHM_MATRIX_BT709;
    shm_range range = SHM_RANGE_FULL;
};

/*!
 * A publisher in a process of its own.
 *
 * Usage: prepare(), first of all in main(); in a test set ZEV_SHM_DIR, then start(): the store "picture" is
 * there.
 *
 * It is a copy of a process that was put aside while this one had neither threads nor drivers: where
 * everything is emulated, starting a program with all its libraries takes seconds, and this none.
 */
class DmaPublisher
{
public:
    ~DmaPublisher() { kill(); }

    /*! Threads: there must be no other yet. All publishers end with this process, however it ends. */
    static bool prepare();

    /*! True once the first frame is out. */
    bool start(const DmaPublication &publication);
    /*! As a crash would; waits until it is gone. */
    void kill();

private:
    pid_t process = -1;
};

#endif
