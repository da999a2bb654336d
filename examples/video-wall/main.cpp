// video-wall [--seconds N] [--report FILE.json] URL...: shows all of them; at the end, what each stream has
// been through and what it cost.
#include <zevqt-mm/livestatistics.h>

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QTimer>

#include <sys/resource.h>

namespace {

double processorSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) { return double(time.tv_sec) + double(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The statistics of a LiveSource are a value of C++, too.
QJsonObject streamReport(QObject *window, int index, const QString &url)
{
    QVariant source;
    QMetaObject::invokeMethod(window, "sourceAt", Q_RETURN_ARG(QVariant, source), Q_ARG(QVariant, index));
    const auto now = source.value<QObject *>()->property("statistics").value<LiveStatistics>();
    return {{"url", url},
            {"frames", double(now.frames)},
            {"distinct", double(now.distinct)},
            {"repeated", double(now.repeated)},
            {"skipped", double(now.skipped)},
            {"lapped", double(now.lapped)},
            {"shown_rate", now.meanRate},
            {"source_rate", now.sourceRate},
            {"age_p50_ms", now.ageP50Ms},
            {"age_p99_ms", now.ageP99Ms},
            {"frame_path", now.framePath}};
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOptions({{"seconds", "End after so many.", "N"}, {"report", "Write what was seen.", "FILE"}});
    parser.addPositionalArgument("URL", "Of each picture, shm:///NAME or v4l:///dev/videoN.", "URL...");
    parser.process(application);
    const QStringList urls = parser.positionalArguments();
    if (urls.isEmpty())
        parser.showHelp(1);

    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral(QML_DIR));
    engine.rootContext()->setContextProperty("wallUrls", urls);
    engine.load(QUrl(QStringLiteral("qrc:/main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    QObject *window = engine.rootObjects().first();

    QElapsedTimer clock;
    clock.start();
    const double before = processorSeconds();
    if (parser.isSet("seconds"))
        QTimer::singleShot(int(1000 * parser.value("seconds").toDouble()), &application,
                           &QGuiApplication::quit);
    const int code = application.exec();

    const double seconds = double(clock.elapsed()) / 1000.0;
    QJsonArray streams;
    for (int i = 0; i < urls.size(); ++i)
        streams << streamReport(window, i, urls[i]);
    QFile report(parser.value("report"));
    if (!parser.isSet("report"))
        return code;
    if (!report.open(QIODevice::WriteOnly)) {
        qCritical("cannot write '%s': %s", qPrintable(report.fileName()), qPrintable(report.errorString()));
        return 1;
    }
    report.write(QJsonDocument(QJsonObject{{"seconds", seconds},
                                           {"processor_seconds", processorSeconds() - before},
                                           {"streams", streams}})
                     .toJson());
    return code;
}
