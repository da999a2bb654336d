// Windows where EGL has none, to be preloaded: on the surfaceless platform every window is a pbuffer of the
// size that Qt's eglfs gives its screen. So a program that opens one window, like the viewer, runs under
// with-gl as it is. With RIG_SCREENSHOT=FILE what was last shown is in that file, as a PPM picture, replaced
// by renaming at every swap of the buffers: whole at any time.
#define _GNU_SOURCE
#include <EGL/egl.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define WINDOW __attribute__((visibility("default")))

enum { glRgba = 0x1908, glUnsignedByte = 0x1401, attributeLimit = 64 };

// Writes EGL's own function to the pointer `function` points to; null when there is none. Not RTLD_NEXT: Qt's
// plugin loads EGL for itself.
static void find(const char *name, void *function)
{
    static void *library;
    if (!library)
        library = dlopen("libEGL.so.1", RTLD_LAZY);
    void *found = library ? dlsym(library, name) : NULL;
    memcpy(function, &found, sizeof found);
}

static int number(const char *variable, int otherwise)
{
    const char *text = getenv(variable);
    return text && atoi(text) > 0 ? atoi(text) : otherwise;
}

static int width(void)
{
    return number("QT_QPA_EGLFS_WIDTH", 640);
}

static int height(void)
{
    return number("QT_QPA_EGLFS_HEIGHT", 480);
}

WINDOW EGLSurface eglCreateWindowSurface(EGLDisplay display, EGLConfig config, EGLNativeWindowType window,
                                         const EGLint *attributes)
{
    typedef EGLSurface (*CreatePbufferSurface)(EGLDisplay, EGLConfig, const EGLint *);
    (void)window;
    (void)attributes;
    const EGLint size[] = {EGL_WIDTH, width(), EGL_HEIGHT, height(), EGL_NONE};
    CreatePbufferSurface create;
    find("eglCreatePbufferSurface", &create);
    return create ? create(display, config, size) : EGL_NO_SURFACE;
}

// The platform has configurations for pbuffers only.
WINDOW EGLBoolean eglChooseConfig(EGLDisplay display, const EGLint *attributes, EGLConfig *configs,
                                  EGLint size, EGLint *found)
{
    typedef EGLBoolean (*ChooseConfig)(EGLDisplay, const EGLint *, EGLConfig *, EGLint, EGLint *);
    ChooseConfig choose;
    find("eglChooseConfig", &choose);
    EGLint own[attributeLimit + 1];
    int i = 0;
    for (; attributes && i < attributeLimit && attributes[i] != EGL_NONE; i += 2) {
        own[i] = attributes[i];
        own[i + 1] = attributes[i] == EGL_SURFACE_TYPE ? EGL_PBUFFER_BIT : attributes[i + 1];
    }
    own[i] = EGL_NONE;
    return choose ? choose(display, own, configs, size, found) : EGL_FALSE;
}

static void keepScreenshot(const char *path)
{
    typedef void (*ReadPixels)(int, int, int, int, unsigned, unsigned, void *);
    typedef void (*(*LookUp)(const char *))(void);
    LookUp lookUp;
    find("eglGetProcAddress", &lookUp);
    const ReadPixels readPixels = lookUp ? (ReadPixels)lookUp("glReadPixels") : NULL;
    const size_t line = (size_t)width() * 4;
    unsigned char *pixels = malloc(line * (size_t)height());
    char partial[512];
    snprintf(partial, sizeof partial, "%s.partial", path);
    FILE *file = fopen(partial, "wb");
    if (readPixels && pixels && file) {
        readPixels(0, 0, width(), height(), glRgba, glUnsignedByte, pixels);
        fprintf(file, "P6\n%d %d\n255\n", width(), height());
        for (int y = height() - 1; y >= 0; --y) { // GL counts lines from below
            for (int x = 0; x < width(); ++x)
                fwrite(pixels + line * (size_t)y + 4 * (size_t)x, 1, 3, file);
        }
    }
    free(pixels);
    if (file && fclose(file) == 0)
        rename(partial, path);
}

WINDOW EGLBoolean eglSwapBuffers(EGLDisplay display, EGLSurface surface)
{
    (void)display;
    (void)surface;
    const char *path = getenv("RIG_SCREENSHOT");
    if (path)
        keepScreenshot(path);
    return EGL_TRUE;
}
