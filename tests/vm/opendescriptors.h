#ifndef ZEVQTMM_TESTS_OPENDESCRIPTORS_H
#define ZEVQTMM_TESTS_OPENDESCRIPTORS_H

#include <QtCore/QDir>

/*! How many descriptors this process has open. */
inline int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

/*!
 * How many stay open: the driver keeps the memory of a few images until it is done with what it drew of them,
 * which it notices when it draws something else. `drawNothing` draws a picture without an image in it.
 */
template <class DrawNothing>
int settledDescriptors(DrawNothing drawNothing)
{
    int descriptors = openDescriptors();
    for (int unchanged = 0; unchanged < 10; ++unchanged) {
        drawNothing();
        const int now = openDescriptors();
        if (now != descriptors)
            unchanged = 0;
        descriptors = now;
    }
    return descriptors;
}

#endif
