#pragma once

#include "engine/VXAudioGain.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <cmath>

// How one input ended.
enum class CliOutcome {
    Ok,        // measured and normalised with one linear gain
    OnePass,   // no usable measurement: the single-pass output was kept
    Skipped,   // already within --skip-within of the target: left untouched
    Analyzed,  // measured only (--analyze)
    Tagged,    // measured and ReplayGain tags written (--tags-only); audio untouched
    Restored,  // --undo-lossless put the original gain fields back
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
    // --lossless: the steps, how far they fell from the plan, fields held at
    // a limit, or why the file was normalised the usual way.
    VXGainResult::Lossless lossless;
    QStringList notes;  // the same in words
};

// A number from the measurement record (loudnorm prints them as strings),
// or NaN when absent or not a number.
double measuredValue(const CliFileResult &r, const char *key);

// The table for people, written a row at a time: every result goes through
// measure() first (the widths, which columns show, the albums), then each
// through row() in the same order.
class CliTable {
public:
    CliTable();
    void measure(const CliFileResult &r);
    QByteArray header() const;
    QByteArray row(const CliFileResult &r) const;
    // One line an album, after the files; empty without albums.
    QByteArray albums() const;

private:
    struct Album {
        QString name;
        double integrated = NAN;
        double truePeak = NAN;
        double range = NAN;
        double gainDb = NAN;
        QString normalization;
        int tracks = 0;
        double tagGain = NAN;
        double tagPeak = NAN;
    };
    QList<qsizetype> shown() const;
    QByteArray line(const QStringList &cells) const;
    QList<qsizetype> m_widths;
    bool m_maxima = false;
    bool m_tags = false;
    QList<Album> m_albums;
};

// One object a file, for programs: the elements of --json's array and the
// lines of --jsonl.
QJsonObject resultObject(const CliFileResult &r);
QByteArray jsonLine(const CliFileResult &r);
// The --json array written an element at a time, laid out as QJsonDocument
// lays out an array.
QByteArray jsonArrayOpen();
QByteArray jsonArrayElement(const CliFileResult &r, bool first);
QByteArray jsonArrayClose(bool empty);

// Both at once, for a list in memory.
QByteArray formatTable(const QList<CliFileResult> &results);
QByteArray formatJson(const QList<CliFileResult> &results);
