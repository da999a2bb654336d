#include "recordedegl.h"

#include <dlfcn.h>

#include <cstring>

namespace {

using Function = void (*)();
using LookUp = Function (*)(const char *);
using CreateImage = void *(*)(void *, void *, unsigned int, void *, const int *);
using DestroyImage = unsigned int (*)(void *, void *);
using GetError = int (*)();

enum : int { none = 0x3038, success = 0x3000 };

CreateImage realCreate;
DestroyImage realDestroy;
GetError realError;
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
    return image;
}

unsigned int destroyImage(void *display, void *image)
{
    const unsigned int isDestroyed = realDestroy(display, image);
    if (isDestroyed)
        ++RecordedEgl::instance().destroyed;
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
    if (std::strcmp(name, "eglCreateImageKHR") == 0) {
        realCreate = reinterpret_cast<CreateImage>(real);
        return reinterpret_cast<Function>(createImage);
    }
    if (std::strcmp(name, "eglDestroyImageKHR") == 0) {
        realDestroy = reinterpret_cast<DestroyImage>(real);
        return reinterpret_cast<Function>(destroyImage);
    }
    if (std::strcmp(name, "eglGetError") == 0) {
        realError = reinterpret_cast<GetError>(real);
        return reinterpret_cast<Function>(lastError);
    }
    return real;
}
