#include "qmltypes.h"

#include "livesource.h"
#include "livevideo.h"

#include <QtQml>

namespace zevqml {

void registerQmlTypes(const char *uri)
{
    qRegisterMetaType<LiveStatistics>();
    qmlRegisterType<LiveSource>(uri, 1, 0, "LiveSource");
    qmlRegisterType<LiveVideo>(uri, 1, 0, "LiveVideo");
}

} // namespace zevqml
