#pragma once

#include <QAbstractListModel>
#include <QHash>
#include <QList>
#include <QMetaObject>
#include <QMutex>

#include "engine/VXAudioGain.h"

// The ordered list of audio items behind the main window's list view. Every
// collection operation emits the model's matching insert/remove/reset
// signals; a property change of one item emits dataChanged for its row only.
// Main thread only.
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
    // The list itself, for walks that must not copy it; do not keep the
    // reference across a change of the list.
    const QList<VXAudioGainPtr> &items() const { return m_items; }
    VXAudioGainPtr at(int index) const;
    void setAudioGains(const QList<VXAudioGainPtr> &items);
    void insertObject(const VXAudioGainPtr &item, int index);
    void removeObjectFromAudioGainsAtIndex(int index);
    // Removes the items at all the indexes in one call: one row removal per
    // contiguous run, from the last run back, and one countChanged.
    void removeAudioGainsAtIndexes(const QList<int> &indexes);
    void replaceObject(int index, const VXAudioGainPtr &item);
    int indexOf(const VXAudioGain *item) const;
    // Whether some item's input path equals path once both are lower-cased.
    // Constant time: the import asks it for every file it meets. The one
    // member safe to call from any thread.
    bool containsInput(const QString &path) const;

signals:
    void countChanged();

private:
    void watch(const VXAudioGainPtr &item);
    void unwatch(const VXAudioGainPtr &item);
    void emitRowChanged(const VXAudioGain *item, const QList<int> &roles);
    QList<VXAudioGainPtr> m_items;
    // The same item may stand in the list twice (a list set from outside):
    // its connections go with its last occurrence.
    struct Watch {
        QList<QMetaObject::Connection> connections;
        int refs = 0;
    };
    QHash<const VXAudioGain *, Watch> m_watches;
    // Input keys of the items, with how many items carry each: a list set
    // from outside may hold the same input twice.
    QHash<QString, int> m_inputKeys;  // under m_inputKeysLock
    mutable QMutex m_inputKeysLock;
};
