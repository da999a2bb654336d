#ifndef ZEVQTMM_TESTS_DMAPUBLISHER_H
#define ZEVQTMM_TESTS_DMAPUBLISHER_H

#include <QtCore/QProcess>

#include <shm/shm_writer.h>

/*! What a publisher is to publish: the test picture, again and again. */
struct DmaPublication
{
    QByteArray memory; // a memory kind of the store
    int pixelFormat = SHM_PIXEL_FORMAT_NV12;
    shm_matrix matrix = SHM_MATRIX_BT709;
    shm_range range = SHM_RANGE_FULL;
};

/*!
 * A publisher in a process of its own: this program once more, told by its arguments.
 *
 * Usage: in main(), first of all: if (DmaPublisher::isPublisher(argc, argv)) return DmaPublisher::run(argv).
 * In a test: start(), then the store "picture" is there.
 */
class DmaPublisher
{
public:
    ~DmaPublisher() { stop(); }

    bool start(const DmaPublication &publication);
    /*! Kills it, as a crash would. */
    void stop();

    static bool isPublisher(int argc, char **argv);
    static int run(char **argv);

private:
    QProcess process;
};

#endif
