#pragma once

#include <QString>
#include <QUrl>

/* What a person can do about a store of the wrong kind, in the terms of what he sits in front of. */
struct SourceRemedies
{
    QString soundOnly;   // the store that pictures are to come from has none
    QString pictureOnly; // the store that sound is to come from has none
};

/*
 * Why a source delivers no picture, or no sound, in one line that names the thing and the remedy; empty when
 * nothing is wrong with it as far as can be seen from here. A capture device says so itself when it is
 * opened.
 *
 * Threads: any. Cost: connects to the store; a writer that does not answer is waited for 100 ms, once.
 */
QString whyNoPicture(const QUrl &source, const SourceRemedies &remedies);
QString whyNoSound(const QUrl &source, const SourceRemedies &remedies);
