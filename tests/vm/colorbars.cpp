#include "colorbars.h"

#include <QtGui/QColor>

#include <algorithm>

QString whereBarsDiffer(const QImage &picture, const QSize &size, int tolerance)
{
    static const QRgb bars[] = {0xffffff, 0xffff00, 0x00ffff, 0x00ff00,
                                0xff00ff, 0xff0000, 0x0000ff, 0x000000};
    if (picture.size() != size)
        return QStringLiteral("the picture is %1 x %2").arg(picture.width()).arg(picture.height());
    const int width = size.width() / int(std::size(bars));
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            if (x % width < 4 || x % width >= width - 4)
                continue;
            const QRgb expected = bars[x / width], shown = picture.pixel(x, y);
            const int difference =
                std::max({qAbs(qRed(expected) - qRed(shown)), qAbs(qGreen(expected) - qGreen(shown)),
                          qAbs(qBlue(expected) - qBlue(shown))});
            if (difference > tolerance)
                return QStringLiteral("at %1,%2: %3 instead of %4")
                    .arg(x)
                    .arg(y)
                    .arg(QColor(shown).name(), QColor(expected).name());
        }
    }
    return {};
}
