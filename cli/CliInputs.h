#pragma once

// Which files a run takes: the paths named, and those listed with
// --files-from, walked in the app's order; each file once whatever its
// spelling; this process's share of them (--shard); minus what the journal
// says an earlier run finished.

#include "cli/CliReport.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <vector>

struct CliOptions;
class VXJournal;

// Whether the file at relative (its path below the folder it was found in,
// or as given) falls to shard k of n: a hash of the path, so every process
// that is given the same roots agrees, with no coordinator.
bool cliShardTakes(const QString &relative, int k, int n);

// The entries of a --files-from list: lines (a "\r" before the newline is
// not part of the name), or NUL-terminated names; empty entries skipped.
QStringList cliListEntries(const QByteArray &list, bool nulSeparated);

struct CliInputs {
    std::vector<QString> files;  // in the order found
    qsizetype doneEarlier = 0;   // finished by an earlier run of the journal
    qsizetype otherShards = 0;   // left to the other shares
};

// Reads the list (standard input for "-"); an error text when it cannot.
std::optional<QString> cliReadFilesFrom(const CliOptions &opt, QStringList *entries);

// Walks the inputs; a named path that is missing goes to missing() as a
// result, with its message said on standard error. Stops early when cancel
// is set.
CliInputs cliGatherInputs(const CliOptions &opt, const QStringList &inputs, VXJournal *journal,
                          const std::function<void(CliFileResult)> &missing);
