#pragma once

#include <QString>

// Path arithmetic on plain strings, with the semantics the item's naming
// rules are written in: nothing here touches the file system.
namespace VXPath {

// "/a/b.mp3" -> "b.mp3"; trailing slashes are ignored.
QString lastComponent(const QString &path);
// "/a/b.mp3" -> "/a"; "/b" -> "/"; "b" -> "".
QString deletingLastComponent(const QString &path);
// "/a" + "b" -> "/a/b"; "" + "b" -> "b".
QString appendingComponent(const QString &folder, const QString &component);
// What follows the last dot of the last component, or "".
QString extension(const QString &path);
// The path without ".extension".
QString deletingExtension(const QString &path);
// "name" + "ext" -> "name.ext"; an empty extension adds nothing.
QString appendingExtension(const QString &path, const QString &ext);
// name cut to at most maxBytes in the file system's encoding, never inside a
// character: names of our own made from a user's name must stay within the
// 255-byte limit of a name whatever that name's length.
QString leftBytes(const QString &name, int maxBytes);

} // namespace VXPath
