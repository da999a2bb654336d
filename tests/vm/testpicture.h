#ifndef ZEVQTMM_TESTS_TESTPICTURE_H
#define ZEVQTMM_TESTS_TESTPICTURE_H

#include <QtGui/QColor>
#include <QtGui/QImage>

#include <shm/shm_reader.h>

/*!
 * A picture of flat patches, in memory as a store lays it out: saturated color bars above, grays and muted
 * colors below. Flat, so that how a driver interpolates chroma does not matter to what is expected in a
 * patch.
 */
class TestPicture
{
public:
    enum { columns = 8, rows = 2, patchWidth = 16, patchHeight = 32 };
    enum { width = columns * patchWidth, height = rows * patchHeight };

    struct Sample
    {
        int y, u, v;
    };

    /*! Full-range or limited-range samples of the patches under a matrix. */
    TestPicture(shm_matrix matrix, shm_range range);

    /*! Sample values of a patch, and the color it is to be shown as. */
    Sample sample(int column, int row) const { return samples[row][column]; }
    QColor color(int column, int row) const;

    /*! Describes the picture's layout in `record`, offsets and strides as a store chooses them, and returns
     * its size in bytes. */
    static size_t layOut(int pixelFormat, shm_video_frame_t *record);
    /*! Writes the picture to `memory`, which `record` describes. */
    void write(int pixelFormat, const shm_video_frame_t &record, unsigned char *memory) const;

    /*!
     * How far the picture drawn into `image`, in its middle part of every patch, strays from what is
     * expected, at most: 0 to 255. `where` names the patch.
     */
    int worstDifference(const QImage &image, QString *where) const;

private:
    shm_matrix matrix;
    shm_range range;
    Sample samples[rows][columns];
};

#endif
