#ifndef ZEVQTMM_TESTS_VIRTUALCAMERA_H
#define ZEVQTMM_TESTS_VIRTUALCAMERA_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QSize>

#include <cstdint>

/*!
 * The kernel's virtual capture device (vivid), from its other side: sets what it shows and how it misbehaves.
 *
 * Controls bear the driver's names, menu entries its texts. Every operation opens the device for itself, so
 * that nothing of this holds it; the first failure is kept in error().
 */
class VirtualCamera
{
public:
    /*! Those of this machine with one flavour of the API, by number. */
    static QList<VirtualCamera> all(bool isMultiplanar);

    QByteArray device() const { return path; }
    bool isMultiplanar() const { return multiplanar; }
    QByteArray error() const { return failure; }

    bool set(const char *control, int value);
    bool set(const char *control, const char *menuEntry);
    /*! Sets size and pixel format; false when the driver makes something else of it. */
    bool setFormat(const QSize &size, std::uint32_t pixelFormat);
    bool setRate(unsigned int framesPerSecond);
    /*! Bars in full saturation that stand still, without text in them, as RGB of one encoding. */
    bool showBars(const char *colorspace, const char *encoding, const char *range);

private:
    bool request(unsigned long number, void *argument, const char *what);

    QByteArray path;
    bool multiplanar = false;
    QByteArray failure;
};

#endif
