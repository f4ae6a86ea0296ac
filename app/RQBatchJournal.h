#pragma once

// Every press of Gain keeps a journal while its jobs run (VXJournal: what
// each file's job published and finished). One that outlives its program, a
// crash, a kill or a power cut, tells the next start which files were not
// done, so they can be gained again without doing any file twice.

#include "engine/VXAudioGain.h"

#include <QList>
#include <QPair>
#include <QString>
#include <memory>

class VXJournal;

namespace RQBatchJournal {

// $XDG_STATE_HOME/evenloud/batches (~/.local/state/evenloud/batches).
QString folder();
// A journal for a new batch of items, noting each file and its target;
// null when none can be made (the batch then runs without).
std::shared_ptr<VXJournal> begin(const QList<VXAudioGainPtr> &items);
// Files that join the batch under way.
void add(VXJournal &journal, const QList<VXAudioGainPtr> &items);
// The batch has ended, each file as the user left it: nothing to resume.
void finish(std::shared_ptr<VXJournal> journal);
// Whether journal is a batch's (and not, say, a hot folder's).
bool isBatchJournal(const VXJournal &journal);

struct Interrupted {
    int total = 0;                        // files the batch held
    QList<QPair<QString, float>> undone;  // path and target of each not done
};
// The batches whose programs died before they ended, each taken over and
// its journal removed. A live program's batch is never touched.
QList<Interrupted> takeInterrupted();

} // namespace RQBatchJournal
