#pragma once

#include <QAbstractListModel>
#include <QStringList>

/*
 * The names of the sound devices, "default" first. The role is `name`.
 *
 * Threads: the GUI thread. Cost: refresh() asks all systems for all their devices, which takes about a tenth
 * of a second; the first rowCount() does so too.
 */
class AudioDevices : public QAbstractListModel
{
    Q_OBJECT

public:
    enum Role { NameRole = Qt::UserRole };

    using QAbstractListModel::QAbstractListModel;

    void refresh();

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

private:
    mutable QStringList m_names; // empty: not asked yet
};
