#include "audiodevices.h"

#include "sound.h"

namespace {

QStringList allNames()
{
    return QStringList{QStringLiteral("default")} + Sound::deviceNames();
}

} // namespace

void AudioDevices::refresh()
{
    const QStringList names = allNames();
    if (names == m_names)
        return;
    beginResetModel();
    m_names = names;
    endResetModel();
}

int AudioDevices::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid())
        return 0;
    if (m_names.isEmpty())
        m_names = allNames();
    return m_names.size();
}

QVariant AudioDevices::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_names.size() || (role != NameRole && role != Qt::DisplayRole))
        return {};
    return m_names.at(index.row());
}

QHash<int, QByteArray> AudioDevices::roleNames() const
{
    return {{NameRole, "name"}};
}
