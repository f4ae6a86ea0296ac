#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QMetaObject>
#include <QSet>

#include "engine/VXAudioGain.h"

// The ordered list of audio items behind the main window's list view. Every
// collection operation emits the model's matching insert/remove/reset
// signals; a property change of one item emits dataChanged for its row only.
class VXAudioGainList : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        ItemRole = Qt::UserRole + 1,   // VXAudioGain* (the list keeps it alive)
        FaceRole,                      // QImage
        NameRole,                      // QString: inputFileName
        SizeTextRole,                  // QString: formatInputFileSize
        DurationTextRole,              // QString: formatDuration
        TargetTextRole,                // QString: formatTargetLoudness
        AllowedTargetEditRole,         // bool: allowedTargetLoudnessEdit
        StateImageRole,                // QImage or null: stateImage
        StateRole,                     // qint32
        RetCodeRole,                   // qint64
        TargetLoudnessRole,            // float 0..100
    };
    Q_ENUM(Role)

    explicit VXAudioGainList(QObject *parent = nullptr);
    ~VXAudioGainList() override;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const;
    // A snapshot: later changes of the list do not touch it.
    QList<VXAudioGainPtr> audioGains() const;
    VXAudioGainPtr at(int index) const;
    void setAudioGains(const QList<VXAudioGainPtr> &items);
    void insertObject(const VXAudioGainPtr &item, int index);
    void removeObjectFromAudioGainsAtIndex(int index);
    // Removes the items at all the indexes in one change of the list.
    void removeAudioGainsAtIndexes(const QList<int> &indexes);
    void replaceObject(int index, const VXAudioGainPtr &item);
    int indexOf(const VXAudioGain *item) const;

signals:
    void countChanged();

private:
    void watch(const VXAudioGainPtr &item);
    void unwatch(const VXAudioGainPtr &item);
    QList<VXAudioGainPtr> m_items;
    QHash<const VXAudioGain *, QList<QMetaObject::Connection>> m_connections;
};
