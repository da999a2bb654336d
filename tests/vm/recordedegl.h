#ifndef ZEVQTMM_TESTS_RECORDEDEGL_H
#define ZEVQTMM_TESTS_RECORDEDEGL_H

#include <QtCore/QByteArray>
#include <QtCore/QStringList>
#include <QtCore/QVector>

/*!
 * What a program's calls were of eglCreateImageKHR and eglDestroyImageKHR, and of GL with textures made of
 * images, on the way to the real EGL and GL.
 *
 * The program that this is linked into stands before EGL where entry points are looked up (eglGetProcAddress,
 * so it has to export its symbols): what is looked up are these recorders, which pass everything on.
 *
 * Threads: one at a time.
 */
struct RecordedEgl
{
    int created = 0;
    int destroyed = 0; //!< with success
    int refused = 0;   //!< images that EGL, or `failWith`, did not make

    QVector<int> attributes; //!< of the last call, the terminator included

    /*! In their order, with success: "image", "bound" (a texture to it), "image gone", "texture gone" (one
     * that was bound). A test may add its own. */
    QStringList events;

    /*! An EGL error that making images ends with from now on, without asking the real one; 0: none. */
    int failWith = 0;

    /*! GL is given no image to bind a texture to, which it refuses (GL_INVALID_VALUE). */
    bool refuseTextures = false;
    /*! Images are not destroyed from now on (EGL_BAD_ACCESS). */
    bool refuseDestroying = false;
    /*! Shaders with this word in their source are not built from now on; empty: all are. */
    QByteArray brokenShader;

    int alive() const { return created - destroyed; }

    static RecordedEgl &instance();
};

#endif
