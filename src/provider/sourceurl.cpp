#include "provider/sourceurl.h"

#include ZEV_MAGIC_ENUM_HEADER

#include <stdexcept>

namespace {

QString wordFor(SourceType type)
{
    return type == Video ? QStringLiteral("video") : QStringLiteral("audio");
}

// The enumeration's names are the schemes. "none" stands for an empty URL and is no scheme.
bool findScheme(const QString &name, MediaProvider::Schemes *found)
{
    for (const auto &[value, valueName] : magic_enum::enum_entries<MediaProvider::Schemes>()) {
        if (value == MediaProvider::none)
            continue;
        if (name == QLatin1String(valueName.data(), static_cast<int>(valueName.size()))) {
            *found = value;
            return true;
        }
    }
    return false;
}

} // namespace

template <SourceType type>
std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl(const QUrl &url)
{
    if (url.isEmpty())
        return {MediaProvider::none, QString()};
    const QString scheme = url.scheme();
    if (scheme.isEmpty())
        throw std::logic_error("MediaProvider requires non-empty scheme");
    MediaProvider::Schemes kind = MediaProvider::none;
    if (!findScheme(scheme, &kind)) {
        throw std::logic_error(QStringLiteral("MediaProvider does not support %1 scheme %2")
                                   .arg(wordFor(type), scheme)
                                   .toStdString());
    }
    QString name = url.path(QUrl::FullyDecoded);
    if (kind == MediaProvider::shm)
        name.remove(0, 1); // the slash of "shm:///cam0"; whatever it is, so that "shm:cam0" names "am0"
    return {kind, name};
}

template std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl<Video>(const QUrl &url);
template std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl<Audio>(const QUrl &url);
