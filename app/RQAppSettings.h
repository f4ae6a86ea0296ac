#pragma once

#include <QString>

// What the app remembers between runs besides the settings of the next Gain
// (VXJobSettings stores those as a unit): the output folder, how an
// audition compares the original with the result, and whether the loudness
// picture is wanted.
namespace RQAppSettings {

inline constexpr char kRQUserSelectedOutFolder[] = "kRQUserSelectedOutFolder";
inline constexpr char kRQAuditionMatchLoudness[] = "kRQAuditionMatchLoudness";
inline constexpr char kRQShowLoudnessPicture[] = "kRQShowLoudnessPicture";

// The remembered folder's absolute path; a null string when none is stored
// or the stored one is no longer an existing folder (the entry stays).
QString userSelectedOutFolder();
// Stores the folder's absolute path at once; false (and nothing stored) when
// the path is not an existing folder.
bool setUserSelectedOutFolder(const QString &folder);

// Whether the original is heard at the result's loudness: on until the
// user turns it off.
bool matchLoudness();
void setMatchLoudness(bool on);
// True until the user turns the picture off.
bool showLoudnessPicture();
void setShowLoudnessPicture(bool show);

} // namespace RQAppSettings
