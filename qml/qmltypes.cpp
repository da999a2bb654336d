#include "qmltypes.h"

#include "audiolevels.h"
#include "liveaudio.h"
#include "livesource.h"
#include "livevideo.h"

#include <QtQml>

namespace zevqml {

void registerQmlTypes(const char *uri)
{
    qRegisterMetaType<LiveStatistics>();
    qmlRegisterType<AudioLevels>(uri, 1, 0, "AudioLevels");
    qmlRegisterSingletonType<LiveAudio>(uri, 1, 0, "LiveAudio", LiveAudio::instance);
    qmlRegisterType<LiveSource>(uri, 1, 0, "LiveSource");
    qmlRegisterType<LiveVideo>(uri, 1, 0, "LiveVideo");
}

} // namespace zevqml
