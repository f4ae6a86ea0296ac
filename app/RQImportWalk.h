#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <optional>

#include "engine/VXAudioGain.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

class QThread;
class QThreadPool;
class VXAudioGainList;

// The background half of an import: walks the paths, probes the accepted
// files a few at a time (probing is what an import waits for), and hands the
// results on in walk order, gathered: a hand-over per file would make the
// window take and repaint ten thousand times. hand runs on the walking
// thread and returns false when nobody takes files any more.
struct RQImportWalk {
    struct Probed {
        QString path;
        VXAudioGainPtr item;  // null when the file was refused
        VXError error;
        std::optional<VXLoudness> kept;  // figures measured before, when the cache has them
    };

    QStringList paths;
    bool recursive = false;
    const std::atomic<bool> *cancel = nullptr;
    // Files the list already holds are not probed; safe from any thread.
    const VXAudioGainList *list = nullptr;
    // Where the probed items are to live.
    QThread *itemThread = nullptr;
    // Where the probes run.
    QThreadPool *probePool = nullptr;
    // VXMeasureFlag bits of the kept figures looked up for each file
    // probed (VXCachedLoudness: no decoding).
    int keptFlags = 0;
    std::function<bool(const QList<Probed> &files)> hand;

    // Probes queued at once; the pool runs one per core of them.
    static constexpr int kProbesAhead = 8;
    // What is ready goes over once this many files are, or once the
    // oldest of them has waited this long.
    static constexpr int kHandFiles = 100;
    static constexpr int kHandMsecs = 100;

    void run() const;
};
