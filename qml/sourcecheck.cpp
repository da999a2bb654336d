#include "sourcecheck.h"

#include "wallclock.h"

#include <shm/shm_reader.h>

#include <algorithm>
#include <memory>

namespace {

constexpr int answerMs = 100;
constexpr qint64 quietUs = 1000000; // without anything new; then that is worth a word
constexpr qint64 quietIntervals = 3;

struct Store
{
    explicit Store(const QUrl &source)
        : name(source.path(QUrl::FullyDecoded).mid(1).section(QLatin1Char(';'), 0, 0))
    {
        shm_reader_options_t options = {};
        options.size = sizeof options;
        options.timeout_ms = answerMs;
        reader.reset(shm_reader_open_with(name.toUtf8().constData(), &options, &error));
        if (reader)
            shm_reader_get_format(reader.get(), &format);
    }

    const QString name;
    shm_error_t error = {};
    shm_reader_format_t format = {};
    std::unique_ptr<shm_reader_t, decltype(&shm_reader_close)> reader{nullptr, &shm_reader_close};
};

bool isQuiet(qint64 newest, qint64 interval)
{
    return wallClockUs() - newest > std::max(quietUs, quietIntervals * interval);
}

bool isStore(const QUrl &source)
{
    return source.scheme() == QLatin1String("shm");
}

QString nothingNew(const QString &name, const char *what)
{
    return QStringLiteral(
               "the publisher of store \"%1\" is there and publishes no new %2: see what it waits for")
        .arg(name, QLatin1String(what));
}

} // namespace

QString whyNoPicture(const QUrl &source, const SourceRemedies &remedies)
{
    if (!isStore(source))
        return {};
    const Store store(source);
    if (!store.reader)
        return QString::fromUtf8(store.error.message);
    if (store.format.valid && !store.format.has_video)
        return QStringLiteral("store \"%1\" carries sound only: %2").arg(store.name, remedies.soundOnly);
    shm_video_status_t status = {};
    if (shm_reader_get_video_status(store.reader.get(), &status) == 0 && status.live &&
        isQuiet(status.newest_timestamp, status.frame_interval_us))
        return nothingNew(store.name, "pictures");
    return {};
}

QString whyNoSound(const QUrl &source, const SourceRemedies &remedies)
{
    if (!isStore(source))
        return {};
    const Store store(source);
    if (!store.reader)
        return QString::fromUtf8(store.error.message);
    if (store.format.valid && !store.format.has_audio)
        return QStringLiteral("store \"%1\" carries no sound: %2").arg(store.name, remedies.pictureOnly);
    shm_audio_status_t status = {};
    if (shm_reader_get_audio_status(store.reader.get(), 0, &status) == 0 &&
        isQuiet(status.newest_timestamp, 0))
        return nothingNew(store.name, "sound");
    return {};
}
