#pragma once

// Figures measured once and kept, so that a file measured before is not
// decoded again: an SQLite database shared by every program of the user
// (the app, several command lines, the shards of one library), in
// $XDG_CACHE_HOME/evenloud/measurements.sqlite unless told otherwise.
//
// An entry belongs to one state of one file: its device, inode, size and
// modification time to the nanosecond, and the meter (with its version)
// that measured it. A file written since, even to the same size, is another
// entry; an old one is pruned once unused for half a year. Entries are
// whole (true peak, steps, further streams), so one serves every caller.
// The cache never fails a file: a damaged database is set aside for a fresh
// one, one that cannot be written turns the cache off, each with one
// warning in the log.

#include "engine/codec/VXCodecBackend.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QString>
#include <QStringList>
#include <functional>
#include <optional>

class VXCancel;

class VXMeasureCache {
public:
    struct Location {
        enum Kind { Default, File, Off };
        Kind kind = Default;
        QString path;  // File: the database, or a folder to keep it in
    };
    // Until this is called, the default location. Connections to an earlier
    // file are dropped.
    static void configure(const Location &where);
    static QString defaultPath();
    // The database in use; empty when the cache is off.
    static QString path();

    // A file's state, as entries are keyed.
    struct Key {
        qint64 device = 0;
        qint64 inode = 0;
        qint64 size = 0;
        qint64 modifiedNs = 0;
        QString meter;  // VXMeterIdentity, and whether mono counts twice
        bool operator==(const Key &) const = default;
    };
    // nullopt for what is not a regular file that can be stat'ed.
    static std::optional<Key> keyOf(const QString &path, bool dualMono);
    // The figures kept for key: with its steps and curve when asked (only
    // then is the blob read). nullopt when none, or when the cache is off.
    static std::optional<vx::Measurement> find(const Key &key, bool withCurve);
    static void store(const Key &key, const vx::Measurement &measurement);
};

struct VXMeasured : vx::Measurement {
    bool cached = false;  // from the cache: nothing was decoded
};

// A step that measures the file in place of the codec backend's measure
// (pass 1 of a job, which prints its record as it goes), with the given
// VXMeasureFlag bits.
using VXMeasureStep = std::function<VXResult<vx::Measurement>(int flags)>;

// The figures of path, from the cache or else measured as VXMeasureFile
// does (progress as the backend's measure reports it) and kept when the file
// did not change meanwhile. flags: VXMeasureDualMono chooses the entry;
// VXMeasureCurve asks for the steps and the curve; with the cache on, a
// measurement always takes the true peak, the steps and the further
// streams, so that its entry serves every caller.
VXResult<VXMeasured> VXMeasureWithCache(const QString &path, int flags, const VXCancel *cancel = nullptr,
                                        const vx::Progress &progress = {}, const VXMeasureStep &measure = {});

// The kept figures of path and nothing else: no decoding.
std::optional<VXLoudness> VXCachedLoudness(const QString &path, int flags);

// An album's tracks, each from the cache or measured (VXMeasureWithCache),
// and its figures from theirs (VXAlbumOf). An error with its reason when
// no track measures, VXCancelledError() when cancelled. The tracks keep
// their figures, not their steps. Of the flags, VXMeasureDualMono applies.
VXResult<VXAlbumLoudness> VXMeasureAlbumWithCache(const QStringList &paths, int flags, const VXCancel *cancel);
