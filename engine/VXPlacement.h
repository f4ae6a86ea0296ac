#pragma once

#include "engine/VXFileId.h"
#include "engine/codec/VXError.h"

#include <QString>
#include <functional>

// Putting a finished file in its final place without ever exposing a partial
// file under a final name and without ever overwriting a user's file by
// accident. Thread-safe; used by the jobs' threads side by side.
namespace VXPlacement {

struct Placed {
    QString path;     // where the file now is
    QString warning;  // placed, but the user should know something
};
// The code of a replace that failed before the original could be given up.
inline constexpr int kBeforeRemoval = 1;
using Result = VXResult<Placed>;
// Called with the final name and the staged file just before the rename
// that publishes it there (once per name tried); an error stops the
// placement with nothing published. How a journal learns where a result is
// going before it can be there.
using BeforePublish = std::function<VXResult<>(const QString &dest, const VXFileId &staged)>;

// Moves src into folder as "base.ext", or the next free name when that is
// taken, never replacing an existing entry, even one that appears while we
// work. The file gets the mode a new file of the user would get.
Result placeInFolder(const QString &src, const QString &folder, const QString &base, const QString &ext,
                     const BeforePublish &beforePublish = {});

// Replaces target with src atomically: at every instant target holds either
// its old content or all of src's, even if the process is killed. The result
// keeps the target's permission bits (and owner, where allowed), its
// extended attributes (ACLs among them) where the file system has them, and
// with keepModificationTime its modification time. A target with other hard
// links gets a warning: those names keep the old content.
Result replaceFile(const QString &src, const QString &target, bool keepModificationTime = false,
                   const BeforePublish &beforePublish = {});

// name cut to at most maxBytes in the file system's encoding, never inside a
// character: names of our own made from a user's name must stay within the
// 255-byte limit of a name whatever that name's length.
QString leftBytes(const QString &name, int maxBytes);

} // namespace VXPlacement
