#include "yuvtextures.h"

#include "frameplanes.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>

#ifndef GL_UNPACK_ROW_LENGTH // same value in OpenGL, ES 3 and GL_EXT_unpack_subimage
#define GL_UNPACK_ROW_LENGTH 0x0CF2
#endif

namespace zevqml {

YuvTextures::~YuvTextures()
{
    // Without a context the textures went with it.
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (context && m_textures[0] != 0)
        context->functions()->glDeleteTextures(MaxPlanes, m_textures);
}

QString YuvTextures::whyNot(QOpenGLContext *context, const QSize &size)
{
    if (!context)
        return QStringLiteral("the window has no OpenGL context");
    // A core profile has neither GL_LUMINANCE nor the language that the shader is written in.
    if (!context->isOpenGLES() && context->format().profile() == QSurfaceFormat::CoreProfile)
        return QStringLiteral("the window has a core profile OpenGL context");
    GLint limit = 0;
    context->functions()->glGetIntegerv(GL_MAX_TEXTURE_SIZE, &limit);
    if (size.width() > limit || size.height() > limit)
        return QStringLiteral("the picture is larger than a texture may be (%1)").arg(limit);
    return {};
}

bool YuvTextures::upload(const QVideoFrame &frame)
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    const FramePlanes planes(frame);
    if (!context || planes.isNull())
        return false;

    QOpenGLFunctions *gl = context->functions();
    if (m_textures[0] == 0) {
        gl->glGenTextures(MaxPlanes, m_textures);
        m_rowLength = !context->isOpenGLES() || context->format().majorVersion() >= 3 ||
                      context->hasExtension("GL_EXT_unpack_subimage");
    }
    m_planeCount = planes.count();
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    for (int i = 0; i < m_planeCount; ++i)
        uploadPlane(gl, planes, i);
    // The scene graph's own uploads expect the defaults.
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    return true;
}

void YuvTextures::uploadPlane(QOpenGLFunctions *gl, const FramePlanes &planes, int index)
{
    const bool pairs = planes.interleaved() && index == 1;
    const GLenum format = pairs ? GL_LUMINANCE_ALPHA : GL_LUMINANCE;
    const int texelBytes = pairs ? 2 : 1;
    const QSize size = index == 0 ? planes.size() : planes.chromaSize();

    gl->glBindTexture(GL_TEXTURE_2D, m_textures[index]);
    if (m_sizes[index] != size || m_formats[index] != format) {
        gl->glTexImage2D(GL_TEXTURE_2D, 0, GLint(format), size.width(), size.height(), 0, format,
                         GL_UNSIGNED_BYTE, nullptr);
        gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        m_sizes[index] = size;
        m_formats[index] = format;
    }

    const int strideBytes = planes.strideBytes(index);
    const bool tight = strideBytes == size.width() * texelBytes;
    if (tight || (m_rowLength && strideBytes % texelBytes == 0)) {
        if (!tight)
            gl->glPixelStorei(GL_UNPACK_ROW_LENGTH, strideBytes / texelBytes);
        gl->glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, size.width(), size.height(), format, GL_UNSIGNED_BYTE,
                            planes.row(index, 0));
        if (!tight)
            gl->glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
        return;
    }
    for (int row = 0; row < size.height(); ++row)
        gl->glTexSubImage2D(GL_TEXTURE_2D, 0, 0, row, size.width(), 1, format, GL_UNSIGNED_BYTE,
                            planes.row(index, row));
}

void YuvTextures::bind(QOpenGLFunctions *gl) const
{
    for (int i = m_planeCount - 1; i >= 0; --i) {
        gl->glActiveTexture(GLenum(GL_TEXTURE0 + i));
        gl->glBindTexture(GL_TEXTURE_2D, m_textures[i]);
    }
}

} // namespace zevqml
