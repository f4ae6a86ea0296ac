#pragma once

#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <optional>

#include "engine/VXAudioGain.h"
#include "engine/codec/VXError.h"
#include "engine/codec/VXLoudnessMeter.h"

class QThread;
class VXAudioGainList;

// The background half of an import: walks the paths, probes the accepted
// files a few at a time (probing is what an import waits for), and hands
// each result on in walk order. hand runs on the walking thread and returns
// false when nobody takes files any more.
struct RQImportWalk {
    QStringList paths;
    bool recursive = false;
    const std::atomic<bool> *cancel = nullptr;
    // Files the list already holds are not probed; safe from any thread.
    const VXAudioGainList *list = nullptr;
    // Where the probed items are to live.
    QThread *itemThread = nullptr;
    // VXMeasureFlag bits of the kept figures looked up for each file
    // probed (VXCachedLoudness: no decoding).
    int keptFlags = 0;
    std::function<bool(const QString &path, const VXAudioGainPtr &item, const VXError &error,
                       const std::optional<VXLoudness> &kept)>
        hand;

    // Probes in flight at once.
    static constexpr int kProbesAhead = 3;

    void run() const;
};
