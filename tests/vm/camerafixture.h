#ifndef ZEVQTMM_TESTS_CAMERAFIXTURE_H
#define ZEVQTMM_TESTS_CAMERAFIXTURE_H

#include "externaltexture.h"
#include "virtualcamera.h"

#include <zevmm/v4l2/dmaeglcapture.h>
#include <zevqt-mm/eglimagecontext.h>

#include <QtCore/QByteArray>
#include <QtGui/QImage>

#include <cstdint>
#include <memory>

/*!
 * A capture from one of the virtual cameras, and the thread that draws it.
 *
 * The cameras are loaded by `boot --module "vivid=n_devs=2 node_types=0x1,0x1 multiplanar=1,2"`.
 */
class CameraFixture
{
public:
    enum { limitMs = 60000 }; // for what takes one frame or two
    static const QSize size;

    /*! A kind of device: its flavour of the API, and its pixel format before and after setup(). */
    struct Kind
    {
        const char *name;
        bool isMultiplanar;
        std::uint32_t present;
        std::uint32_t expected;
    };
    enum { kinds = 3 };
    static const Kind &kind(int row);
    /*! A test's data: one row for each kind, in the column "row". */
    static void addRows();

    CameraFixture();
    ~CameraFixture();

    /*! Why nothing can be tested here; empty when it can. */
    QByteArray error() const { return reason; }

    /*! Lets a camera of that kind show bars that stand still, 30 times a second; `capture` is to be of it.
     * False with the reason in camera.error(). */
    bool useCamera(int row);
    void begin();
    void end();
    /*! The next frame's image; null when none comes. */
    void *next();
    QImage draw(void *image) { return renderer.draw(image, size); }
    /*! Open in this process when the driver has nothing more to do. */
    int descriptorsLeft();

    ExternalTexture renderer;
    zevgl::EGLImageContext egl;
    VirtualCamera camera;
    std::unique_ptr<zevmm::v4l2::DmaEglCapture> capture;

private:
    QByteArray reason;
};

#endif
