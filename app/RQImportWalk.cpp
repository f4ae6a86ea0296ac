#include "app/RQImportWalk.h"

#include "engine/VXAudioGainList.h"
#include "engine/VXImport.h"

#include <QThread>
#include <deque>
#include <future>

namespace {
struct Probe {
    QString path;
    VXAudioGainPtr item;
    VXError error;
};
} // namespace

void RQImportWalk::run() const
{
    std::deque<std::future<Probe>> ahead;
    bool handing = true;
    auto handFront = [&] {
        Probe probe = ahead.front().get();
        ahead.pop_front();
        // After a cancel, files already probed are dropped, not added.
        if (handing && !cancel->load())
            handing = hand(probe.path, probe.item, probe.error);
    };

    VXImport::walk(paths, recursive, *cancel, [&](const QString &file) {
        if (!handing || list->containsInput(file))
            return;
        QThread *target = itemThread;
        ahead.push_back(std::async(std::launch::async, [file, target] {
            Probe probe{file, nullptr, {}};
            probe.item = VXAudioGain::initWithFile(file, QString(), &probe.error);
            if (probe.item)
                probe.item->moveToThread(target);
            return probe;
        }));
        if (int(ahead.size()) >= kProbesAhead)
            handFront();
    });
    while (!ahead.empty())
        handFront();
}
