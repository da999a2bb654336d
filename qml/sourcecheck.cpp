#include "sourcecheck.h"

#include <shm/shm_reader.h>

#include <memory>

namespace {

constexpr int answerMs = 100;

QString whyNoPictureFromStore(const QUrl &source)
{
    const QByteArray name = source.path(QUrl::FullyDecoded).mid(1).section(QLatin1Char(';'), 0, 0).toUtf8();
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = answerMs;
    shm_error_t error = {};
    const std::unique_ptr<shm_reader_t, decltype(&shm_reader_close)> reader(
        shm_reader_open_with(name.constData(), &options, &error), &shm_reader_close);
    if (!reader)
        return QString::fromUtf8(error.message);
    shm_reader_format_t format = {};
    if (shm_reader_get_format(reader.get(), &format) == 0 && format.valid && !format.has_video)
        return QStringLiteral(
                   "store \"%1\" carries sound only: name one with pictures, and this one with --audio")
            .arg(QString::fromUtf8(name));
    return {};
}

} // namespace

QString whyNoPicture(const QUrl &source)
{
    if (source.scheme() == QLatin1String("shm"))
        return whyNoPictureFromStore(source);
    return {};
}
