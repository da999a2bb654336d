#include "qmltypes.h"

#include "livevideo.h"

#include <QtQml>

namespace zevqml {

void registerQmlTypes(const char *uri)
{
    qmlRegisterType<LiveVideo>(uri, 1, 0, "LiveVideo");
}

} // namespace zevqml
