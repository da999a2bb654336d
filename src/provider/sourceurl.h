#ifndef ZEVQTMM_SOURCEURL_H
#define ZEVQTMM_SOURCEURL_H

#include <zevqt-mm/mediaprovider.h>

#include <QtCore/QString>
#include <QtCore/QUrl>

#include <utility>

/*! What a URL is for; only chooses the word in the error message. */
enum SourceType { Video, Audio };

/*!
 * The kind of source that `url` names, and its name there: a store's name, or a device's path. An empty URL
 * gives (none, ""). Throws std::logic_error for a URL without a scheme or with one that is not supported.
 */
template <SourceType type>
std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl(const QUrl &url);

extern template std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl<Video>(const QUrl &url);
extern template std::pair<MediaProvider::Schemes, QString> extractSourceFromUrl<Audio>(const QUrl &url);

#endif
