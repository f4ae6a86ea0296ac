#include "tests/support/Fixtures.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtEndian>

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace fixtures {

bool run(const QString &program, const QStringList &args, QString *out)
{
    // posix_spawn rather than QProcess: Qt starts its children in a way that
    // ThreadSanitizer cannot follow, and afterwards it loses sight of the
    // test's locks and reports races that are not there.
    std::vector<QByteArray> words{QFile::encodeName(program)};
    for (const QString &arg : args)
        words.push_back(arg.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
    pid_t pid = 0;
    const int err = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    QByteArray output;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipeFds[0], buffer, sizeof buffer)) != 0;) {
        if (n > 0)
            output.append(buffer, n);
        else if (errno != EINTR)
            break;
    }
    ::close(pipeFds[0]);
    if (err != 0)
        return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (out)
        *out = QString::fromUtf8(output);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

namespace {

QString ffmpeg() { return QStringLiteral("ffmpeg"); }

QStringList quiet() { return {"-nostdin", "-hide_banner", "-loglevel", "error", "-y"}; }

// Chords under a slow swell with a little noise: enough dynamics for a
// loudness range above 1 LU, and no exact repetition a codec could exploit.
QString musicSource(double seconds)
{
    const QString env = "(0.6+0.3*sin(2*PI*0.35*t))";
    const QString left = env + "*(0.22*sin(2*PI*220*t)+0.14*sin(2*PI*277.2*t)+0.1*sin(2*PI*329.6*t*(1+0.003*sin(2*PI*5*t))))"
                               "+0.02*(2*random(0)-1)";
    const QString right = env + "*(0.2*sin(2*PI*164.8*t)+0.14*sin(2*PI*246.9*t)+0.1*sin(2*PI*440*t*(1+0.003*sin(2*PI*4*t))))"
                                "+0.02*(2*random(1)-1)";
    return QStringLiteral("aevalsrc=exprs='%1|%2':s=44100:c=stereo:d=%3").arg(left, right).arg(seconds);
}

QByteArray be32(quint32 v)
{
    QByteArray b(4, '\0');
    qToBigEndian(v, b.data());
    return b;
}

// A picture in the block layout Ogg streams carry in METADATA_BLOCK_PICTURE.
QByteArray pictureBlock(const QByteArray &image, const QByteArray &mime, int w, int h)
{
    QByteArray block = be32(3) + be32(quint32(mime.size())) + mime + be32(0);
    block += be32(quint32(w)) + be32(quint32(h)) + be32(24) + be32(0);
    block += be32(quint32(image.size())) + image;
    return block;
}

QStringList tagArgs(const QString &variant)
{
    return {"-metadata", "title=Evenloud " + variant, "-metadata", "artist=Fixture Artist",
            "-metadata", "album=Fixture Album"};
}

} // namespace

QString makeAudio(const QString &dir, const QString &name, double seconds,
                  const QStringList &ffmpegOutputArgs, double gainDb)
{
    const QString path = QDir(dir).filePath(name);
    QStringList args = quiet();
    args << "-f" << "lavfi" << "-i" << musicSource(seconds)
         << "-af" << QStringLiteral("volume=%1dB").arg(gainDb) << ffmpegOutputArgs << path;
    return run(ffmpeg(), args) ? path : QString();
}

QString makeChannels(const QString &dir, const QString &name, const QString &layout, int channels, double seconds,
                     const QStringList &ffmpegOutputArgs, int only)
{
    // Levels and pitches differ by channel, so a weight given to the wrong
    // channel shows in the figure; the slow swell gives the gate some work.
    // A channel sounding alone has the first channel's signal, so files
    // that differ only in where it sounds can be compared.
    QStringList exprs;
    for (int c = 0; c < channels; ++c) {
        const int k = only >= 0 ? 0 : c;
        const double level = 0.06 + 0.03 * (k % 4);
        exprs << ((only >= 0 && c != only)
                      ? QStringLiteral("0")
                      : QStringLiteral("(0.7+0.3*sin(2*PI*0.4*t))*(%1*sin(2*PI*%2*t)+%3*(2*random(%4)-1))")
                            .arg(level)
                            .arg(150 + 110 * k)
                            .arg(level / 3)
                            .arg(k));
    }
    const QString source = QStringLiteral("aevalsrc=exprs='%1':c=%2:s=48000:d=%3")
                               .arg(exprs.join('|'), layout.isEmpty() ? QString::number(channels) + "c" : layout)
                               .arg(seconds);
    const QString path = QDir(dir).filePath(name);
    QStringList args = quiet();
    args << "-f" << "lavfi" << "-i" << source;
    if (!layout.isEmpty())
        return run(ffmpeg(), args << ffmpegOutputArgs << path) ? path : QString();
    // Through raw samples, which carry no layout, read without a guess.
    const QString raw = path + ".raw";
    const bool ok = run(ffmpeg(), args << "-f" << "s16le" << raw)
        && run(ffmpeg(), quiet() << "-guess_layout_max" << "0" << "-f" << "s16le" << "-ar" << "48000" << "-ac"
                                 << QString::number(channels) << "-i" << raw << ffmpegOutputArgs << path);
    QFile::remove(raw);
    return ok ? path : QString();
}

QString makeLong(const QString &dir, const QString &name, double seconds)
{
    // Generating a tone costs little; the meter's true peak costs per
    // sample and channel, and FLAC keeps the file small.
    const QString path = QDir(dir).filePath(name);
    const bool ok = run(ffmpeg(), quiet() + QStringList{"-f", "lavfi", "-i", QStringLiteral("sine=f=440:r=48000:d=%1").arg(seconds),
                                                        "-ac", "6", "-c:a", "flac", "-compression_level", "0", path});
    return ok ? path : QString();
}

QString makeCover(const QString &dir, const QString &ext)
{
    const QString path = QDir(dir).filePath("cover." + ext);
    if (QFile::exists(path))
        return path;
    QStringList args = quiet();
    args << "-f" << "lavfi" << "-i" << "testsrc=size=64x48:rate=1" << "-frames:v" << "1" << path;
    return run(ffmpeg(), args) ? path : QString();
}

QList<Format> formats()
{
    const QStringList aac{"-c:a", "aac", "-b:a", "160k"}, video{"-c:a", "aac", "-b:a", "128k"};
    // variant, ext, codec, rate, channels, bits, tags, cover, video, encoder arguments
    return {
        {"mp3", "mp3", "mp3", 44100, 2, 0, true, true, false, {"-c:a", "libmp3lame", "-b:a", "192k", "-id3v2_version", "3"}},
        {"m4a-aac", "m4a", "aac", 44100, 2, 0, true, true, false, aac},
        {"m4a-alac", "m4a", "alac", 44100, 2, 16, true, true, false, {"-c:a", "alac", "-sample_fmt", "s16p"}},
        {"mp4-h264", "mp4", "aac", 44100, 2, 0, true, false, true, video},
        {"m4v-h264", "m4v", "aac", 44100, 2, 0, true, false, true, video},
        {"mov-pcm", "mov", "pcm_s16le", 48000, 2, 16, true, false, false, {"-c:a", "pcm_s16le"}},
        {"mov-aac", "mov", "aac", 48000, 2, 0, true, false, false, aac},
        {"wma", "wma", "wmav2", 44100, 2, 0, true, false, false, {"-c:a", "wmav2", "-b:a", "128k"}},
        {"wav16", "wav", "pcm_s16le", 44100, 2, 16, true, false, false, {"-c:a", "pcm_s16le"}},
        {"wav24", "wav", "pcm_s24le", 48000, 2, 24, true, false, false, {"-c:a", "pcm_s24le"}},
        {"wavf32", "wav", "pcm_f32le", 44100, 2, 32, true, false, false, {"-c:a", "pcm_f32le"}},
        {"ac3-51", "ac3", "ac3", 48000, 6, 0, false, false, false, {"-c:a", "ac3", "-b:a", "448k"}},
        {"flac16", "flac", "flac", 44100, 2, 16, true, true, false, {"-c:a", "flac", "-sample_fmt", "s16"}},
        {"flac24", "flac", "flac", 96000, 2, 24, true, true, false,
         {"-c:a", "flac", "-sample_fmt", "s32", "-bits_per_raw_sample", "24"}},
        {"mp2", "mp2", "mp2", 48000, 2, 0, false, false, false, {"-c:a", "mp2", "-b:a", "256k"}},
        {"ogg-vorbis", "ogg", "vorbis", 44100, 2, 0, true, true, false, {"-c:a", "libvorbis", "-q:a", "4"}},
        {"ogg-opus", "ogg", "opus", 48000, 2, 0, true, true, false, {"-c:a", "libopus", "-b:a", "96k"}},
    };
}

Format format(const QString &variant)
{
    const QList<Format> all = formats();
    for (const Format &f : all)
        if (f.variant == variant)
            return f;
    return {};
}

QString makeFormat(const QString &dir, const QString &variant, double seconds)
{
    const Format f = format(variant);
    if (f.variant.isEmpty())
        return {};
    const QString path = QDir(dir).filePath(variant + "." + f.ext);
    QStringList codec = f.encode;
    codec << "-ar" << QString::number(f.sampleRate) << "-ac" << QString::number(f.channels);
    if (f.hasTags)
        codec << tagArgs(variant);

    QStringList args = quiet();
    args << "-f" << "lavfi" << "-i" << musicSource(seconds);
    if (f.hasVideo) {
        args << "-f" << "lavfi" << "-i" << QStringLiteral("testsrc=size=160x120:rate=25:duration=%1").arg(seconds)
             << "-map" << "0:a" << "-map" << "1:v" << "-c:v" << "libx264" << "-preset" << "ultrafast"
             << "-pix_fmt" << "yuv420p";
    } else if (f.hasCover && f.ext != "ogg") {
        const QString cover = makeCover(dir, "jpg");
        if (cover.isEmpty())
            return {};
        args << "-i" << cover << "-map" << "0:a" << "-map" << "1:v" << "-c:v" << "copy"
             << "-disposition:v" << "attached_pic" << "-metadata:s:v" << "comment=Cover (front)";
    } else if (f.hasCover) {
        // The ogg muxer cannot take a picture stream; the picture travels as
        // a comment instead, as taggers write it.
        const QByteArray cover = readFile(makeCover(dir, "png"));
        if (cover.isEmpty())
            return {};
        const QByteArray block = pictureBlock(cover, "image/png", 64, 48);
        args << "-metadata:s:a:0" << "METADATA_BLOCK_PICTURE=" + QString::fromLatin1(block.toBase64());
    }
    args << codec << path;
    return run(ffmpeg(), args) ? path : QString();
}

Loudness measureLoudness(const QString &path, int audioStream)
{
    QString out;
    const QStringList args = {"-nostdin", "-hide_banner", "-nostats", "-i", path, "-map", QStringLiteral("0:a:%1").arg(audioStream),
                              "-af", "ebur128=peak=true", "-f", "null", "-"};
    Loudness result;
    if (!run(ffmpeg(), args, &out))
        return result;
    // Only the summary at the end: the per-block lines use the same labels.
    const qsizetype summary = out.lastIndexOf("Summary:");
    if (summary < 0)
        return result;
    const QString tail = out.mid(summary);
    const auto number = [&](const QString &label, bool *ok) {
        const QRegularExpression re(label + R"(:\s*(-?inf|-?[0-9.]+))");
        const auto m = re.match(tail);
        *ok = m.hasMatch();
        return m.hasMatch() ? m.captured(1).toDouble() : 0.0;
    };
    bool okI = false, okLra = false, okPeak = false;
    result.integrated = number("I", &okI);
    result.range = number("LRA", &okLra);
    result.truePeak = number("Peak", &okPeak);
    // "-inf" does not parse with toDouble; report it as such for silence.
    if (tail.contains(QRegularExpression(R"(I:\s*-inf)")))
        result.integrated = -std::numeric_limits<double>::infinity();
    result.ok = okI && okLra && okPeak;
    return result;
}

} // namespace fixtures
