#pragma once

// Album mode for jobs that start on their own: the albums of one Gain press,
// grouped and measured on the job pool by the first track that needs them.

#include "engine/VXAlbum.h"
#include "engine/VXAudioGain.h"

#include <QHash>
#include <QMutex>
#include <QStringList>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class VXCancel;

class VXAlbumBatch {
public:
    // flags: the VXMeasureFlag bits the albums are measured with (dual mono).
    explicit VXAlbumBatch(QStringList paths, int flags = 0);

    // The album figures of path, one of the batch's. The tags of every file
    // are read at the first call, and each album is measured once, by the
    // first of its tracks to ask; the others wait for it. A cancel ends the
    // wait at once; one that stops the measurement leaves it to the next
    // track. nullopt with a reason when the album or this track could not
    // be measured, or with none when cancelled.
    std::optional<VXAlbumMember> member(const QString &path, const VXCancel *cancel, QString *why);

private:
    struct Album {
        std::mutex lock;  // guards what follows the name
        std::condition_variable changed;  // a measurement ended, or a waiter's cancel came
        QString name;
        QStringList tracks;
        bool measuring = false;  // a track is measuring it now, without the lock
        bool measured = false;  // tried and ended, successfully or not
        VXAlbumLoudness loudness;
        QString reason;
    };
    QMutex m_groupLock;
    QStringList m_paths;
    int m_flags = 0;
    bool m_grouped = false;
    QHash<QString, std::pair<int, int>> m_place;  // path: album, track within it
    std::vector<std::unique_ptr<Album>> m_albums;
};
