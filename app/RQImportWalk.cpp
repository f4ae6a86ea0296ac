#include "app/RQImportWalk.h"

#include "engine/VXAudioGainList.h"
#include "engine/VXImport.h"
#include "engine/VXMeasureCache.h"

#include <QThread>
#include <QtConcurrent>
#include <deque>

namespace {
struct Probe {
    QString path;
    VXAudioGainPtr item;
    VXError error;
    std::optional<VXLoudness> kept;
};
} // namespace

void RQImportWalk::run() const
{
    std::deque<QFuture<Probe>> ahead;
    bool handing = true;
    auto handFront = [&] {
        Probe probe = ahead.front().result();
        ahead.pop_front();
        // After a cancel, files already probed are dropped, not added.
        if (handing && !cancel->load())
            handing = hand(probe.path, probe.item, probe.error, probe.kept);
    };

    VXImport::walk(paths, recursive, *cancel, [&](const QString &file) {
        if (!handing || list->containsInput(file))
            return;
        QThread *target = itemThread;
        // On Qt's shared pool: imports running side by side probe no more
        // files at once than there are cores.
        ahead.push_back(QtConcurrent::run([file, target, flags = keptFlags] {
            Probe probe{file, nullptr, {}, std::nullopt};
            probe.item = VXAudioGain::initWithFile(file, QString(), &probe.error);
            if (probe.item) {
                probe.item->moveToThread(target);
                probe.kept = VXCachedLoudness(file, flags);
            }
            return probe;
        }));
        if (int(ahead.size()) >= kProbesAhead)
            handFront();
    });
    while (!ahead.empty())
        handFront();
}
