#include "report.h"

#include "viewer.h"

#include <QFile>
#include <QFileInfo>

namespace {

QJsonValue soundOf(const ViewerFigures &figures)
{
    const Sound::Figures &sound = figures.sound;
    if (!sound.isWanted)
        return {};
    const auto known = [](bool is, double value) { return is ? QJsonValue(value) : QJsonValue(); };
    return QJsonObject{
        {"device", sound.starts > 0 ? QJsonValue(sound.device) : QJsonValue()},
        {"rate", known(sound.rate > 0, sound.rate)},
        {"delay_ms", known(sound.delayUs >= 0, double(sound.delayUs) / 1000.0)},
        {"underrun_episodes", figures.live.audioUnderruns},
        {"silence_ms", figures.live.audioSilenceMs},
        {"jumps", sound.jumps},
        {"restarts", sound.starts > 0 ? sound.starts - 1 : 0},
        {"av_offset_ms", QJsonObject{{"p50", known(figures.live.avOffsets > 0, figures.live.avOffsetMs)},
                                     {"p95", known(figures.live.avOffsets > 0, figures.live.avOffsetP95Ms)}}},
        {"history_short_ms", double(figures.historyShortUs) / 1000.0},
        {"problem", sound.problem},
    };
}

QJsonValue cameraOf(const ViewerFigures &figures)
{
    if (!figures.camera)
        return {};
    const auto count = [](quint64 value) { return QJsonValue(qint64(value)); };
    return QJsonObject{
        {"captured", count(figures.camera->captured)},
        {"delivered", count(figures.camera->delivered)},
        {"skipped", count(figures.camera->skipped)},
        {"damaged", count(figures.camera->damaged)},
        {"restarts", count(figures.camera->restarts)},
        {"returns", count(figures.camera->returns)},
        {"trouble", figures.cameraTrouble},
    };
}

} // namespace

QJsonObject reportOf(const ViewerFigures &figures, const QString &url, double seconds)
{
    const LiveStatistics &f = figures.live;
    const auto count = [](quint64 value) { return QJsonValue(qint64(value)); };
    return {
        {"url", url},
        {"seconds", seconds},
        {"frames", count(f.frames)},
        {"distinct", count(f.distinct)},
        {"repeated", count(f.repeated)},
        {"skipped", count(f.skipped)},
        {"lapped", count(f.lapped)},
        {"backward", count(f.backward)},
        {"invalid", count(f.unanswered)},
        {"invalid_before_first", count(f.unansweredBeforeFirst)},
        {"idle_events", count(f.idle)},
        {"no_signal_frames", count(f.noSignal)},
        {"images_withheld", count(figures.withheld)},
        {"audio_buffers", count(figures.audioBuffers)},
        {"fps", f.meanRate},
        {"tick_fps", f.tickRate},
        {"source_interval_us", f.sourceIntervalUs},
        {"latency_ms",
         QJsonObject{{"p50", f.ageP50Ms}, {"p95", f.ageP95Ms}, {"p99", f.ageP99Ms}, {"max", f.ageMaxMs}}},
        {"source_fps", f.sourceRate},
        {"jitter_ms", f.jitterMs},
        {"locks_held", f.locksHeld},
        {"size", f.size.isValid()
                     ? QJsonValue(QJsonObject{{"width", f.size.width()}, {"height", f.size.height()}})
                     : QJsonValue()},
        {"pixel_format", f.pixelFormat},
        {"frame_path", f.framePath},
        {"frame_path_reason", f.framePathReason},
        {"audio", soundOf(figures)},
        {"camera", cameraOf(figures)},
    };
}

QString cannotWrite(const QString &path, const QString &reason)
{
    return QStringLiteral("cannot write '%1': %2; check the path, its permissions and the space there")
        .arg(path, reason);
}

QString whyNotWritable(const QString &path)
{
    QFile file(path);
    const bool existed = file.exists();
    if (existed && !QFileInfo(path).isFile())
        return QStringLiteral("cannot write '%1': it is not a file; name one").arg(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        return cannotWrite(path, file.errorString());
    file.close();
    if (!existed)
        file.remove();
    return {};
}
