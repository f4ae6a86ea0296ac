#pragma once

#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>

// The rules by which files enter a batch, shared by the app and the CLI.
namespace VXImport {

// "mp3", "m4a", "mp4", "mov", "m4v" (the app's own) ...
QStringList supportAudioGainOwnExts();
// ... then "wma", "wav", "ac3", "flac", "mp2", "ogg".
QStringList supportExtenalFormats();
// All eleven, in that order.
QStringList supportAudioGainExts();

// The whole extension after the last dot of the last component, lower-cased,
// is one of the eleven.
bool passesExtensionTest(const QString &path);

// Two input paths are the same item when equal once lower-cased (no link or
// relative-component resolving).
bool isSameInput(const QString &a, const QString &b);
// A key with isSameInput(a, b) == (inputKey(a) == inputKey(b)), for sets of
// inputs that would otherwise be compared pairwise.
QString inputKey(const QString &path);

// Walks paths in order on the calling thread: existing files that pass the
// extension test go to onFile; folders are listed (one level, or depth-first
// when recursive) in name order, case aside; links are followed, and a folder
// already walked is skipped so link loops end. cancel is checked before each entry,
// before descending and after each top-level path. With skipHidden, entries
// of walked folders whose names begin with a dot (hidden files and folders,
// and the "._name" sidecars that macOS leaves on shared drives) are passed over.
void walk(const QStringList &paths, bool recursive, const std::atomic<bool> &cancel,
          const std::function<void(const QString &file)> &onFile, bool skipHidden = false);

} // namespace VXImport
