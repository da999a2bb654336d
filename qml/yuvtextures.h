#pragma once

#include <QString>
#include <QVideoFrame>
#include <QtGui/qopengl.h>

QT_BEGIN_NAMESPACE
class QOpenGLContext;
class QOpenGLFunctions;
QT_END_NAMESPACE

namespace zevqml {

class FramePlanes;

/*
 * The planes of one 4:2:0 frame as textures: Y, U, V, or Y and interleaved UV.
 *
 * Luma and planar chroma are GL_LUMINANCE, interleaved chroma is GL_LUMINANCE_ALPHA (U is red, V is alpha):
 * the one pair of formats that OpenGL 2 and OpenGL ES 2 both have.
 *
 * Threads: bound to the thread of the context that was current at the first upload, the destructor included.
 * Ownership: owns the textures; a frame is read during upload() and not referenced afterwards.
 */
class YuvTextures
{
public:
    enum { MaxPlanes = 3 };

    YuvTextures() = default;
    ~YuvTextures();
    YuvTextures(const YuvTextures &) = delete;
    YuvTextures &operator=(const YuvTextures &) = delete;

    /* Empty when frames of this size can be uploaded in this context, else why not. */
    static QString whyNot(QOpenGLContext *context, const QSize &size);

    /*
     * Copies the planes into the textures. Needs a current context that whyNot() has nothing against. False
     * when the frame has no readable planes (FramePlanes); the textures then keep what they had. Cost: one
     * copy of the frame; where rows have padding and the context cannot skip it (OpenGL ES 2), one call per
     * row.
     */
    bool upload(const QVideoFrame &frame);

    /* Binds plane i to texture unit i and leaves unit 0 active. */
    void bind(QOpenGLFunctions *gl) const;

    int planeCount() const { return m_planeCount; }
    bool isEmpty() const { return m_planeCount == 0; }

private:
    void uploadPlane(QOpenGLFunctions *gl, const FramePlanes &planes, int index);

    GLuint m_textures[MaxPlanes] = {0, 0, 0};
    QSize m_sizes[MaxPlanes];
    GLenum m_formats[MaxPlanes] = {0, 0, 0};
    int m_planeCount = 0;
    bool m_rowLength = false; // GL_UNPACK_ROW_LENGTH may be used
};

} // namespace zevqml
