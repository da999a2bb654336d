#ifndef ZEVQTMM_TESTS_RECORDEDEGL_H
#define ZEVQTMM_TESTS_RECORDEDEGL_H

#include <QtCore/QVector>

/*!
 * What a program's calls of eglCreateImageKHR and eglDestroyImageKHR were, on the way to the real EGL.
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

    /*! An EGL error that making images ends with from now on, without asking the real one; 0: none. */
    int failWith = 0;

    int alive() const { return created - destroyed; }

    static RecordedEgl &instance();
};

#endif
