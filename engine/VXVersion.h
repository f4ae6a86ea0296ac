#pragma once

#ifndef EVENLOUD_VERSION
#define EVENLOUD_VERSION "0.0.0"
#endif

// The program's version, as the files it writes and its caches record it.
inline constexpr char kVXProgramVersion[] = EVENLOUD_VERSION;
