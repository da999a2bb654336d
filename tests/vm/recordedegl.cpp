#include "recordedegl.h"

#include <dlfcn.h>

#include <QtCore/QSet>
#include <QtGui/qopengl.h>

#include <string>

namespace {

using Function = void (*)();
using LookUp = Function (*)(const char *);
using CreateImage = void *(*)(void *, void *, unsigned int, void *, const int *);
using DestroyImage = unsigned int (*)(void *, void *);
using GetError = int (*)();
using TargetTexture = void (*)(GLenum, void *);
using DeleteTextures = void (*)(GLsizei, const GLuint *);
using ShaderSource = void (*)(GLuint, GLsizei, const char *const *, const GLint *);
using GetInteger = void (*)(GLenum, GLint *);

enum : int { none = 0x3038, success = 0x3000, badAccess = 0x3002 };

CreateImage realCreate;
DestroyImage realDestroy;
GetError realError;
TargetTexture realTargetTexture;
DeleteTextures realDeleteTextures;
ShaderSource realShaderSource;
GetInteger getInteger;
QSet<GLuint> boundTextures;
int pendingError = success;

void *createImage(void *display, void *context, unsigned int target, void *buffer, const int *attributes)
{
    RecordedEgl &record = RecordedEgl::instance();
    record.attributes.clear();
    for (const int *entry = attributes;; entry += 2) {
        record.attributes << entry[0];
        if (entry[0] == none)
            break;
        record.attributes << entry[1];
    }
    pendingError = record.failWith ? record.failWith : success;
    void *image = record.failWith ? nullptr : realCreate(display, context, target, buffer, attributes);
    ++(image ? record.created : record.refused);
    if (image)
        record.events << QStringLiteral("image");
    return image;
}

unsigned int destroyImage(void *display, void *image)
{
    if (RecordedEgl::instance().refuseDestroying) {
        pendingError = badAccess;
        return 0;
    }
    const unsigned int isDestroyed = realDestroy(display, image);
    if (isDestroyed) {
        ++RecordedEgl::instance().destroyed;
        RecordedEgl::instance().events << QStringLiteral("image gone");
    }
    return isDestroyed;
}

int lastError()
{
    if (pendingError == success)
        return realError();
    const int error = pendingError;
    pendingError = success;
    return error;
}

void targetTexture(GLenum target, void *image)
{
    RecordedEgl &record = RecordedEgl::instance();
    realTargetTexture(target, record.refuseTextures ? nullptr : image);
    if (record.refuseTextures)
        return;
    record.events << QStringLiteral("bound");
    GLint texture = 0;
    getInteger(0x8D67, &texture); // GL_TEXTURE_BINDING_EXTERNAL_OES
    boundTextures << GLuint(texture);
}

void deleteTextures(GLsizei count, const GLuint *textures)
{
    realDeleteTextures(count, textures);
    for (GLsizei i = 0; i < count; ++i) {
        if (boundTextures.remove(textures[i]))
            RecordedEgl::instance().events << QStringLiteral("texture gone");
    }
}

void shaderSource(GLuint shader, GLsizei count, const char *const *parts, const GLint *lengths)
{
    const QByteArray &word = RecordedEgl::instance().brokenShader;
    QByteArray whole;
    for (GLsizei i = 0; i < count; ++i)
        whole += lengths && lengths[i] >= 0 ? QByteArray(parts[i], lengths[i]) : QByteArray(parts[i]);
    const char *broken = "#error broken by the test\n";
    if (!word.isEmpty() && whole.contains(word))
        realShaderSource(shader, 1, &broken, nullptr);
    else
        realShaderSource(shader, count, parts, lengths);
}

template <class Signature>
Function recorded(Function real, Signature *kept, Signature recorder)
{
    *kept = reinterpret_cast<Signature>(real);
    return reinterpret_cast<Function>(recorder);
}

} // namespace

RecordedEgl &RecordedEgl::instance()
{
    static RecordedEgl record;
    return record;
}

extern "C" __attribute__((visibility("default"))) Function eglGetProcAddress(const char *name);

extern "C" Function eglGetProcAddress(const char *name)
{
    // Qt's plugin has loaded it, for itself: it is not among the libraries that RTLD_NEXT looks at.
    static void *const library = dlopen("libEGL.so.1", RTLD_LAZY);
    static const auto next =
        reinterpret_cast<LookUp>(library ? dlsym(library, "eglGetProcAddress") : nullptr);
    const Function real = next ? next(name) : nullptr;
    if (!real)
        return real;
    const std::string wanted(name);
    if (wanted == "eglCreateImageKHR")
        return recorded(real, &realCreate, createImage);
    if (wanted == "eglDestroyImageKHR")
        return recorded(real, &realDestroy, destroyImage);
    if (wanted == "eglGetError")
        return recorded(real, &realError, lastError);
    if (wanted == "glEGLImageTargetTexture2DOES") {
        getInteger = reinterpret_cast<GetInteger>(next("glGetIntegerv"));
        return recorded(real, &realTargetTexture, targetTexture);
    }
    if (wanted == "glDeleteTextures")
        return recorded(real, &realDeleteTextures, deleteTextures);
    if (wanted == "glShaderSource")
        return recorded(real, &realShaderSource, shaderSource);
    return real;
}
