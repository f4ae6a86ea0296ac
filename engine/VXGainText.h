#pragma once

#include "engine/VXAudioGain.h"

#include <QString>
#include <QStringList>

// The outcome of a job in words: "-14.0 LUFS · -2.0 dBTP · linear", the
// reason of a failure, or empty while nothing has ended.
QString VXOutcomeText(qint32 state, qint64 retCode, const VXGainResult &result);
// What a lossless run adds to the outcome: why a file was normalised the
// usual way, how far whole steps fell from the plan, fields held at a limit.
QStringList VXLosslessNotes(const VXGainResult &result);
// "1023B", "1.50KB", "3.25MB": the units and two decimals the rows have
// always shown (binary multiples, no space).
QString VXFormatSize(quint64 bytes);
// "mm:ss", or "hh:mm:ss" from an hour on; ticks of VXTimebase.
QString VXFormatDuration(quint64 ticks);
