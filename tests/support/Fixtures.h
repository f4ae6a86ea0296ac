#pragma once

#include <ostream>

#include <QList>
#include <QString>
#include <QStringList>
#include <QtCore/qtestsupport_core.h>
#include <functional>

// Test material made at test time with the ffmpeg command-line tool. Every
// function returns an empty string / invalid result on failure rather than
// aborting, so a test can assert with its own message.
namespace fixtures {

// Spins the event loop (jobs report through it) until pred holds; the
// generous limit only turns a hang into a failure.
inline bool waitFor(const std::function<bool()> &pred, int msecs = 120000)
{
    return QTest::qWaitFor(pred, msecs);
}

// Runs program to its end; true when it exited with 0. Standard output and
// error, merged, go to *out when given.
bool run(const QString &program, const QStringList &args, QString *out = nullptr);

// The whole file, or empty when it cannot be read.
QByteArray readFile(const QString &path);
// Creates or replaces the file; true when all of bytes were written.
bool writeFile(const QString &path, const QByteArray &bytes);

// Writes dir/name: seconds of music-like stereo material at 44.1 kHz (sines
// under a slow envelope over pink noise, loudness range well above 1 LU),
// about -15 LUFS shifted by gainDb, encoded with ffmpegOutputArgs (codec,
// rate, channels, ...). Returns the full path, or "" on failure.
QString makeAudio(const QString &dir, const QString &name, double seconds,
                  const QStringList &ffmpegOutputArgs, double gainDb = 0.0);
// The same as 16-bit PCM WAV, the quickest to make and to open.
inline QString makeWav(const QString &dir, const QString &name, double seconds = 1.0, double gainDb = 0.0)
{
    return makeAudio(dir, name, seconds, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")}, gainDb);
}

// Writes dir/name: seconds of 48 kHz audio in an FFmpeg channel layout
// ("5.1(side)", "7.1", ...) of the given channel count, each channel its own
// tone and noise at its own level, encoded with ffmpegOutputArgs. With only
// set, that channel alone sounds, with the first channel's signal (the others
// are digital silence). An empty
// layout leaves the order unstated, as a plain PCM WAV header does: only a
// WAV output keeps that. Returns the full path, or "" on failure.
QString makeChannels(const QString &dir, const QString &name, const QString &layout, int channels, double seconds,
                     const QStringList &ffmpegOutputArgs, int only = -1);

// Writes dir/name (a .flac): a tone in six channels at 48 kHz, quick to make
// at any length and slow to measure (a 30-minute file takes this machine's
// meter about 20 s): for work that must still be under way when a test acts
// on it. Returns the full path, or "" on failure.
QString makeLong(const QString &dir, const QString &name, double seconds);

// A small cover picture (64x48, "png" or "jpg"); full path or "".
QString makeCover(const QString &dir, const QString &ext = QStringLiteral("jpg"));

// One entry of the corpus: the eleven extensions in their usual codecs.
struct Format {
    QString variant;     // unique id, also the file's base name, e.g. "flac24"
    QString ext;         // file-name extension without dot
    QString codec;       // FFmpeg codec name of the audio stream
    int sampleRate = 44100;
    int channels = 2;
    int bitsPerSample = 0; // 16/24/32 for lossless codecs, 0 for lossy ones
    bool hasTags = true;   // title/artist/album written
    bool hasCover = false; // attached picture written
    bool hasVideo = false; // a real video stream besides the audio
    QStringList encode;    // ffmpeg's output arguments for the audio
};
// Test listings show a parameter by its variant, not as raw bytes.
inline void PrintTo(const Format &format, std::ostream *os) { *os << format.variant.toStdString(); }
QList<Format> formats();
Format format(const QString &variant);

// Writes dir/<variant>.<ext> (3 s unless told) with tags title "Evenloud
// <variant>", artist "Fixture Artist", album "Fixture Album" and cover art
// where the format carries them. Returns the full path, or "".
QString makeFormat(const QString &dir, const QString &variant, double seconds = 3.0);

struct Loudness {
    bool ok = false;
    double integrated = 0; // LUFS
    double range = 0;      // LU
    double truePeak = 0;   // dBTP
};
// Measures an audio stream (the first by default) with FFmpeg's ebur128 scanner.
Loudness measureLoudness(const QString &path, int audioStream = 0);

} // namespace fixtures
