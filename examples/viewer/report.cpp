#include "report.h"

#include "viewer.h"

#include <QFile>

QJsonObject reportOf(const ViewerFigures &figures, const QString &url, double seconds)
{
    const FrameStatistics::Figures &f = figures.frames;
    const auto count = [](quint64 value) { return QJsonValue(qint64(value)); };
    return {
        {"url", url},
        {"seconds", seconds},
        {"frames", count(f.frames)},
        {"distinct", count(f.distinct)},
        {"repeated", count(f.repeated)},
        {"skipped", count(f.skipped)},
        {"backward", count(f.backward)},
        {"invalid", count(figures.invalid)},
        {"invalid_before_first", count(figures.invalidBeforeFirst)},
        {"idle_events", count(f.idle)},
        {"no_signal_frames", count(f.noSignal)},
        {"images_withheld", count(figures.withheld)},
        {"audio_buffers", count(figures.audioBuffers)},
        {"fps", f.fps},
        {"tick_fps", figures.tickRate},
        {"source_interval_us", f.sourceIntervalUs},
        {"latency_ms",
         QJsonObject{{"p50", f.latencyP50Ms}, {"p95", f.latencyP95Ms}, {"max", f.latencyMaxMs}}},
        {"size", figures.size.isValid() ? QJsonValue(QJsonObject{{"width", figures.size.width()},
                                                                 {"height", figures.size.height()}})
                                        : QJsonValue()},
        {"pixel_format", figures.pixelFormat},
        {"frame_path", figures.framePath},
        {"frame_path_reason", figures.framePathReason},
    };
}

QString whyNotWritable(const QString &path)
{
    QFile file(path);
    const bool existed = file.exists();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        return QStringLiteral("cannot write '%1': %2").arg(path, file.errorString());
    file.close();
    if (!existed)
        file.remove();
    return {};
}
