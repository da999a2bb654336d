#include "audio/audiologging.h"

const QLoggingCategory &audio()
{
    static const QLoggingCategory category("zevqt.audio", QtWarningMsg);
    return category;
}

const QLoggingCategory &audioTimings()
{
    static const QLoggingCategory category("zevqt.audio-timings", QtWarningMsg);
    return category;
}
