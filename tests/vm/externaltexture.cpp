#include "externaltexture.h"

#include <QtGui/QOpenGLFramebufferObject>

namespace {

const GLenum textureExternal = 0x8D65; // GL_TEXTURE_EXTERNAL_OES

const char vertexShader[] = "attribute highp vec2 position;\n"
                            "varying highp vec2 coordinate;\n"
                            "void main() {\n"
                            "    coordinate = position * 0.5 + 0.5;\n"
                            "    gl_Position = vec4(position, 0.0, 1.0);\n"
                            "}\n";
const char fragmentShader[] = "#extension GL_OES_EGL_image_external : require\n"
                              "uniform samplerExternalOES picture;\n"
                              "varying highp vec2 coordinate;\n"
                              "void main() { gl_FragColor = texture2D(picture, coordinate); }\n";

} // namespace

ExternalTexture::ExternalTexture()
{
    offscreen.create();
    if (!glContext.create() || !glContext.makeCurrent(&offscreen)) {
        reason = QStringLiteral("the platform gives no OpenGL context");
        return;
    }
    targetTexture = reinterpret_cast<void (*)(unsigned int, void *)>(
        glContext.getProcAddress("glEGLImageTargetTexture2DOES"));
    if (!glContext.isOpenGLES() || !glContext.hasExtension("GL_OES_EGL_image_external") || !targetTexture) {
        reason = QStringLiteral("the context knows no external textures");
        return;
    }
    build();
}

ExternalTexture::~ExternalTexture()
{
    program.reset();
    glContext.doneCurrent();
}

void ExternalTexture::build()
{
    program = std::make_unique<QOpenGLShaderProgram>();
    program->bindAttributeLocation("position", 0);
    if (!program->addShaderFromSourceCode(QOpenGLShader::Vertex, vertexShader) ||
        !program->addShaderFromSourceCode(QOpenGLShader::Fragment, fragmentShader) || !program->link())
        reason = program->log();
}

bool ExternalTexture::canBind(void *eglImage)
{
    QOpenGLFunctions *gl = glContext.functions();
    while (gl->glGetError() != GL_NO_ERROR) {
    }
    GLuint texture = 0;
    gl->glGenTextures(1, &texture);
    gl->glBindTexture(textureExternal, texture);
    targetTexture(textureExternal, eglImage);
    const bool isTaken = gl->glGetError() == GL_NO_ERROR;
    gl->glDeleteTextures(1, &texture);
    return isTaken;
}

QImage ExternalTexture::draw(void *eglImage, const QSize &size)
{
    QOpenGLFunctions *gl = glContext.functions();
    while (gl->glGetError() != GL_NO_ERROR) {
    }
    QOpenGLFramebufferObject target(size);
    target.bind();

    GLuint texture = 0;
    gl->glGenTextures(1, &texture);
    gl->glActiveTexture(GL_TEXTURE0);
    gl->glBindTexture(textureExternal, texture);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    targetTexture(textureExternal, eglImage);

    static const GLfloat corners[] = {-1, -1, 1, -1, -1, 1, 1, 1};
    gl->glViewport(0, 0, size.width(), size.height());
    gl->glClearColor(1, 0, 1, 1);
    gl->glClear(GL_COLOR_BUFFER_BIT);
    program->bind();
    program->setUniformValue("picture", 0);
    gl->glBindBuffer(GL_ARRAY_BUFFER, 0);
    program->setAttributeArray(0, corners, 2);
    program->enableAttributeArray(0);
    gl->glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);

    QImage image(size, QImage::Format_RGBA8888);
    gl->glReadPixels(0, 0, size.width(), size.height(), GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
    gl->glDeleteTextures(1, &texture);
    target.release();
    return gl->glGetError() == GL_NO_ERROR ? image : QImage();
}

void ExternalTexture::drawNothing()
{
    QOpenGLFramebufferObject target(QSize(1, 1));
    target.bind();
    glContext.functions()->glClear(GL_COLOR_BUFFER_BIT);
    glContext.functions()->glFinish();
    target.release();
}
