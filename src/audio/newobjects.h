#ifndef ZEVQTMM_NEWOBJECTS_H
#define ZEVQTMM_NEWOBJECTS_H

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QVector>

/*!
 * The objects that this thread makes while it lives. For what a plugin makes when it is loaded and nobody
 * hands out. QtCore has a hook for tools that look into programs; where it is not found, or is not the one
 * that Qt 5 has, no object is.
 *
 * Threads: one object at a time in a thread; other threads may make objects meanwhile, which are not seen.
 * Ownership: borrows the objects, and notices when one goes.
 */
class NewObjects
{
public:
    NewObjects();
    ~NewObjects();
    NewObjects(const NewObjects &) = delete;
    NewObjects &operator=(const NewObjects &) = delete;

    /*! The first of a class; null when there is none. */
    QObject *find(const char *className) const;

private:
    friend struct NewObjectsHook;

    QVector<QPointer<QObject>> objects;
};

#endif
