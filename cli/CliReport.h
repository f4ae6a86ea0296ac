#pragma once

#include "engine/VXAudioGain.h"

#include <QByteArray>
#include <QJsonArray>
#include <QList>
#include <QString>
#include <QVariantMap>

#include <cmath>

// How one input ended.
enum class CliOutcome {
    Ok,        // measured and normalised with one linear gain
    OnePass,   // no usable measurement: the single-pass output was kept
    Skipped,   // already within --skip-within of the target: left untouched
    Analyzed,  // measured only (--analyze)
    Tagged,    // measured and ReplayGain tags written (--tags-only); audio untouched
    Failed,    // the job failed; nothing was written
    Cancelled, // interrupted; nothing was written, the original is untouched
    Refused,   // the file could not be opened as audio
    Missing,   // a path named on the command line does not exist
};

QString outcomeName(CliOutcome outcome);
bool outcomeSucceeded(CliOutcome outcome);

struct CliFileResult {
    QString input;
    QString output;       // empty unless a result was placed
    CliOutcome outcome = CliOutcome::Failed;
    QString reason;       // why a file was refused or is missing
    float targetLufs = 0;
    QVariantMap measurement; // the first pass's record ("input_i", ...), may be empty
    double seconds = 0;
    // What the job did, NaN or empty where it did not get that far.
    double gainDb = NAN;
    double outputI = NAN;
    double outputTp = NAN;
    double outputLra = NAN;
    QString normalization;
    int corrections = 0;  // passes run again for what an encoder or a limiter lost
    QString warning;      // succeeded, with something to know (other hard links)
    double maxShortTerm = NAN;  // LUFS, measured with --analyze or --plot
    double maxMomentary = NAN;
    double outputMaxShortTerm = NAN;  // of the result, measured with --plot or --report
    double outputMaxMomentary = NAN;
    QList<VXGainResult::Stream> otherStreams;
    // --album: the album, its figures and the gain its tracks share.
    QString album;
    double albumI = NAN;
    double albumTp = NAN;
    double albumLra = NAN;
    double albumGainDb = NAN;
    QString albumNormalization;
    // --tags-only: what was written (gains to -18 LUFS, peaks linear).
    double tagTrackGain = NAN;
    double tagTrackPeak = NAN;
    double tagAlbumGain = NAN;
    double tagAlbumPeak = NAN;
};

// A number from the measurement record (loudnorm prints them as strings),
// or NaN when absent or not a number.
double measuredValue(const CliFileResult &r, const char *key);

// One formatter for people, one for programs; both list every result in order.
QByteArray formatTable(const QList<CliFileResult> &results);
QByteArray formatJson(const QList<CliFileResult> &results);
// The objects formatJson prints, one per result: what a report is made of.
QJsonArray jsonRecords(const QList<CliFileResult> &results);
