#pragma once

#include <QJsonObject>
#include <QString>

struct ViewerFigures;

/* The figures as the report file has them; the meaning of each is in framestatistics.h and in --help. */
QJsonObject reportOf(const ViewerFigures &figures, const QString &url, double seconds);

/* What to say of a file that could not be written: one line with the remedy. */
QString cannotWrite(const QString &path, const QString &reason);
/* Empty when a file of this name can be written, else one line that says why not. Leaves no file behind. */
QString whyNotWritable(const QString &path);
