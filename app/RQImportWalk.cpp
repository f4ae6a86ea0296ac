#include "app/RQImportWalk.h"

#include "engine/VXAudioGainList.h"
#include "engine/VXImport.h"
#include "engine/VXMeasureCache.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtConcurrent>
#include <deque>

void RQImportWalk::run() const
{
    std::deque<QFuture<Probed>> ahead;
    QList<Probed> ready;
    QElapsedTimer waiting;  // since the oldest ready file became ready
    bool handing = true;
    auto handReady = [&] {
        // After a cancel, files already probed are dropped, not added.
        if (!ready.isEmpty() && handing && !cancel->load())
            handing = hand(ready);
        ready.clear();
    };
    auto takeFront = [&] {
        if (ready.isEmpty())
            waiting.start();
        ready.append(ahead.front().result());
        ahead.pop_front();
        if (ready.size() >= kHandFiles || waiting.elapsed() >= kHandMsecs)
            handReady();
    };

    VXImport::walk(paths, recursive, *cancel, [&](const QString &file) {
        if (!handing || list->containsInput(file))
            return;
        QThread *target = itemThread;
        // Imports running side by side share the pool: they probe no more
        // files at once than there are cores.
        ahead.push_back(QtConcurrent::run(probePool, [file, target, flags = keptFlags] {
            Probed probe{file, nullptr, {}, std::nullopt};
            probe.item = VXAudioGain::initWithFile(file, QString(), &probe.error);
            if (probe.item) {
                probe.item->moveToThread(target);
                probe.kept = VXCachedLoudness(file, flags);
            }
            return probe;
        }));
        // What has finished is taken without waiting; a full queue waits
        // for its oldest, after handing over what has waited long enough.
        while (!ahead.empty() && ahead.front().isFinished())
            takeFront();
        if (int(ahead.size()) >= kProbesAhead) {
            if (!ready.isEmpty() && waiting.elapsed() >= kHandMsecs)
                handReady();
            takeFront();
        }
    });
    while (!ahead.empty())
        takeFront();
    handReady();
}
