#pragma once

#include <QString>
#include <QUrl>

/*
 * Why a source delivers no picture, in one line that names the thing and the remedy; empty when nothing is
 * wrong with it as far as can be seen from here. A capture device says so itself when it is opened.
 *
 * Threads: any. Cost: connects to the store; a writer that does not answer is waited for 100 ms, once.
 */
QString whyNoPicture(const QUrl &source);
