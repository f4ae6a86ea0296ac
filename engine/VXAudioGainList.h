#pragma once

#include <QAbstractListModel>
#include <QHash>
#include <QList>
#include <QMetaObject>
#include <QMutex>

#include "engine/VXAudioGain.h"

// The ordered list of audio items behind the main window's list view. Every
// collection operation emits the model's matching insert/remove/reset
// signals at once. Property changes of items are gathered and reach the view
// once per turn of the event loop: ten thousand jobs starting in one call
// would otherwise cost ten thousand signals. A run of adjacent changed rows
// longer than kRowsApart goes as one dataChanged over the run (a view
// repaints all it shows for it); shorter ones row by row, so that a view
// repaints those rows alone. Main thread only.
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

    // About the rows a window shows at once.
    static constexpr int kRowsApart = 8;

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
    // The first row of item, or -1. Constant time between changes of the
    // list; the first call after a removal or an insertion before the end
    // walks the list once.
    int indexOf(const VXAudioGain *item) const;
    // Whether some item's input path equals path once both are lower-cased.
    // Constant time: the import asks it for every file it meets. The one
    // member safe to call from any thread.
    bool containsInput(const QString &path) const;

    // Emits the gathered row changes now rather than at the next turn.
    void flushRowChanges();

signals:
    void countChanged();

protected:
    // Gathers a change of item's row for the next flush; nothing for an
    // item not in the list.
    void noteRowChanged(const VXAudioGain *item, const QList<int> &roles);

private:
    void watch(const VXAudioGainPtr &item);
    void unwatch(const VXAudioGainPtr &item);
    QList<VXAudioGainPtr> m_items;
    // Each item's first row; rebuilt on demand when m_rowsStale.
    mutable QHash<const VXAudioGain *, int> m_rows;
    mutable bool m_rowsStale = false;
    quint64 m_shape = 0;  // counts insertions, removals and resets
    // The items whose rows changed since the last flush, with their roles.
    QHash<const VXAudioGain *, QList<int>> m_changed;
    bool m_flushQueued = false;
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
