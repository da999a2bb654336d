#ifndef ZEVQTMM_TESTS_COLORBARS_H
#define ZEVQTMM_TESTS_COLORBARS_H

#include <QtGui/QImage>

/*!
 * Whether a picture shows the bars of VirtualCamera::showBars() over its whole width: empty, or the first
 * place where a color is off by more than `tolerance`. What is next to another bar is not looked at: its
 * chroma is partly that one's.
 */
QString whereBarsDiffer(const QImage &picture, const QSize &size, int tolerance);

#endif
