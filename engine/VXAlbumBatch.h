#pragma once

// Album mode for jobs that start on their own: the albums of one Gain press,
// grouped and measured on the job pool by the first track that needs them.

#include "engine/VXAlbum.h"
#include "engine/VXAudioGain.h"
#include "engine/VXJobSettings.h"

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
    // track. An error with its reason when the album or this track could
    // not be measured, VXCancelledError() when cancelled.
    VXResult<VXAlbumMember> member(const QString &path, const VXCancel *cancel);

    // What a report says of path's album once the jobs have ended: its
    // name, its figures (NaN while not measured) and why path was left out
    // of it (empty when it was not). nullopt for a path not in the batch.
    struct Report {
        QString name;
        VXLoudness album;
        QString why;
    };
    std::optional<Report> report(const QString &path);
    // One track of each album: asking member() for these measures every
    // album once, none waiting for another.
    QStringList leadTracks();

    // Hands settings to every item for its next job and, when they treat
    // files as albums, one batch of the items' files; that batch, or null.
    static std::shared_ptr<VXAlbumBatch> prepareJobs(const QList<VXAudioGainPtr> &items,
                                                     const VXJobSettings &settings);

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
    // Under m_groupLock: reads the tags of every file the first time.
    void groupLocked();
    // Album's lock held, once measured: the track's figures or why not.
    static VXResult<VXAlbumMember> memberLocked(const Album &album, int track);
    // path's album and track within it, grouping first; null when not one of the batch's.
    std::pair<Album *, int> place(const QString &path);

    QMutex m_groupLock;
    QStringList m_paths;
    int m_flags = 0;
    bool m_grouped = false;
    QHash<QString, std::pair<int, int>> m_place;  // path: album, track within it
    std::vector<std::unique_ptr<Album>> m_albums;
};
