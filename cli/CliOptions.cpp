#include "cli/CliOptions.h"

#include "engine/VXImport.h"
#include "engine/VXLoudnessScale.h"
#include "engine/VXReport.h"
#include "engine/codec/VXCodecConstants.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

#ifndef EVENLOUD_VERSION
#define EVENLOUD_VERSION "0.0.0"
#endif

namespace {

const QString kProgram = QStringLiteral("evenloud-cli");

QString usageError(const QString &message)
{
    return QStringLiteral("%1: %2\nTry '%1 --help' for more information.\n").arg(kProgram, message);
}

// Words of text in lines of at most width columns, the later ones indented.
QString wrapped(const QString &text, int width, int indent)
{
    QString out, line;
    for (const QString &word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (!line.isEmpty() && line.size() + 1 + word.size() > width) {
            out += line + QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            line.clear();
        }
        line += (line.isEmpty() ? QString() : QStringLiteral(" ")) + word;
    }
    return out + line;
}

// GNU-style help: the options are listed from the parser's own table, so
// the text cannot drift from what is accepted.
QString helpText(const QList<QCommandLineOption> &options)
{
    QString text;
    text += QStringLiteral("Usage: %1 [--target POS | --lufs LUFS | --preset NAME] [--true-peak DBTP]\n"
                           "                    [--limit-peaks] [--meter ebur128|loudnorm] [--dual-mono]\n"
                           "                    [--album] [--skip-within LU] [--cache PATH | --no-cache]\n"
                           "                    [--plot DIR] [--report FILE]\n"
                           "                    (--output-folder DIR | --replace [--preserve-mtime])\n"
                           "                    [--recursive] [--jobs N] [--json | --jsonl] [--journal FILE]\n"
                           "                    [--shard K/N] [--files-from FILE|- [-0]] FILE|DIR...\n"
                           "       %1 --analyze [--album] [--dual-mono] [--target POS | --lufs LUFS | --preset NAME]\n"
                           "                    [--plot DIR] [--report FILE] [--cache PATH | --no-cache]\n"
                           "                    [--json] FILE|DIR...\n"
                           "       %1 --tags-only [--album] [--dual-mono] [--output-folder DIR] [--preserve-mtime]\n"
                           "                    [--recursive] [--jobs N] [--json] FILE|DIR...\n"
                           "       %1 --lossless [--tags-only] [options as above] FILE|DIR...\n"
                           "       %1 --undo-lossless [--output-folder DIR] [--preserve-mtime] [--recursive]\n"
                           "                    [--jobs N] [--json] FILE|DIR...\n"
                           "       %1 --watch DIR (--output-folder DIR | --replace) [--recursive]\n"
                           "                    [--settle SECONDS] [--done-folder DIR] [--failed-folder DIR]\n"
                           "                    [--jsonl] [--journal FILE] [the options above but --album]\n")
                .arg(kProgram);
    text += QStringLiteral(
        "Bring audio and video files to one loudness: each file is measured, then\n"
        "normalised with one linear gain (EBU R128, two passes), keeping its format,\n"
        "tags, cover art and video. Every result is measured again; one that misses\n"
        "its level by more than 0.5 LU fails and is not written.\n\n");
    text += wrapped(QStringLiteral("Folders are read one level deep unless --recursive is given. Files "
                                   "with the extensions %1 are taken; others are skipped.")
                        .arg(VXImport::supportAudioGainExts().join(QStringLiteral(", "))),
                    76, 0) + QStringLiteral("\n\n");
    text += QStringLiteral("Options:\n");
    for (const QCommandLineOption &o : options) {
        QStringList names;
        for (const QString &n : o.names())
            names << (n.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + n;
        QString left = names.join(QStringLiteral(", "));
        if (!o.valueName().isEmpty())
            left += QLatin1Char(' ') + o.valueName();
        if (o.names().first().size() > 1)
            left.prepend(QStringLiteral("    "));
        text += QStringLiteral("  %1  %2\n").arg(left, -24).arg(wrapped(o.description(), 50, 28));
    }
    text += QStringLiteral(
        "\nEach file's measurement is kept (by device, inode, size and modification\n"
        "time), so a file measured before is not decoded again, in any mode; a file\n"
        "changed since is measured afresh. --no-cache measures everything.\n"
        "\nProgress goes to standard error (live bars on a terminal, one line per\n"
        "file otherwise); the results table, or JSON with --json, to standard output.\n"
        "Ctrl-C cancels cleanly: nothing partial is left and no original is touched;\n"
        "a second Ctrl-C quits at once.\n");
    text += QStringLiteral("\nPresets (--preset NAME):\n");
    for (const VXPreset &p : kVXPresets) {
        QString line = QStringLiteral("%1 LUFS").arg(double(p.lufs), 0, 'f', 0);
        if (!std::isnan(p.truePeak))
            line += QStringLiteral(", %1 dBTP").arg(double(p.truePeak), 0, 'f', 0);
        text += QStringLiteral("  %1  %2  %3\n")
                    .arg(QString::fromLatin1(p.name.data(), qsizetype(p.name.size())), -10)
                    .arg(line, -20)
                    .arg(QString::fromLatin1(p.title.data(), qsizetype(p.title.size())));
    }
    text += QStringLiteral(
        "\nWith --watch the tool runs until it is stopped: the files in DIR are\n"
        "processed, then each that arrives, once it is complete (closed by its\n"
        "writer or moved in; on network mounts, still for --settle seconds).\n"
        "Hidden files and temporary names (.part, ~) are never taken. What was\n"
        "done is kept in a journal (by default under ~/.local/state/evenloud), so a\n"
        "restarted watch does no file twice. SIGTERM or Ctrl-C lets running files\n"
        "finish placing or cancels them cleanly.\n");
    text += QStringLiteral("\nExit status:\n"
                           "  0    all files succeeded\n"
                           "  1    some file failed, was refused or is missing, or none was found\n"
                           "  2    usage error\n"
                           "  130  interrupted (Ctrl-C); 143 terminated (SIGTERM): 128 + the signal\n");
    text += QStringLiteral("\nExamples:\n"
                           "  %1 --lufs -16 --output-folder out/ --recursive music/\n"
                           "  %1 --replace --json podcast.mp3\n"
                           "  %1 --lufs -14 --true-peak -1 --limit-peaks -o out/ album/\n"
                           "  %1 --analyze --preset podcast --plot plots/ episode.wav\n"
                           "  %1 --analyze --preset ebu --report delivery.html masters/\n"
                           "  %1 --skip-within 0.5 --replace --recursive library/\n"
                           "  %1 --lossless --replace --recursive mp3s/\n"
                           "  %1 --watch incoming/ -o ready/ --preset podcast --done-folder done/\n")
                .arg(kProgram);
    return text;
}

// "ebu, atsc, ... or replaygain", from the table.
QString presetNames()
{
    QStringList names;
    for (const VXPreset &p : kVXPresets)
        names << QString::fromLatin1(p.name.data(), qsizetype(p.name.size()));
    return names.mid(0, names.size() - 1).join(QStringLiteral(", ")) + QStringLiteral(" or ") + names.last();
}

std::optional<double> parseNumber(const QString &text)
{
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(v))
        return std::nullopt;
    return v;
}

// Every option the tool takes, in the order --help lists them.
struct Options {
    explicit Options(int defaultJobs)
        : jobs({QStringLiteral("j"), QStringLiteral("jobs")},
               QStringLiteral("files processed at once (default: %1, the cores)").arg(defaultJobs), QStringLiteral("N"))
    {
    }
    const QCommandLineOption target{{QStringLiteral("t"), QStringLiteral("target")},
                                    QStringLiteral("target as the app's 0-100 position on the -70..-5 LUFS "
                                                   "scale (default 70.77, i.e. -24 LUFS); for a level in "
                                                   "LUFS use --lufs"),
                                    QStringLiteral("POS")};
    const QCommandLineOption lufs{{QStringLiteral("l"), QStringLiteral("lufs")},
                                  QStringLiteral("target loudness in LUFS, -70 to -5"),
                                  QStringLiteral("LUFS")};
    const QCommandLineOption preset{QStringLiteral("preset"),
                                    QStringLiteral("target (and ceiling) of a standard: %1 (see below); "
                                                   "--report judges by its limits")
                                        .arg(presetNames()),
                                    QStringLiteral("NAME")};
    const QCommandLineOption truePeak{QStringLiteral("true-peak"),
                                      QStringLiteral("true-peak ceiling in dBTP, -9 to 0 (default -2); a gain "
                                                     "that would push peaks past it stops there"),
                                      QStringLiteral("DBTP")};
    const QCommandLineOption limitPeaks{QStringLiteral("limit-peaks"),
                                        QStringLiteral("reach the target anyway, holding the peaks under the "
                                                       "ceiling with a true-peak limiter")};
    const QCommandLineOption analyze{QStringLiteral("analyze"),
                                     QStringLiteral("measure and report only (loudness, true peak, range, maximum "
                                                    "short-term and momentary loudness, the gain the target "
                                                    "would take); writes no audio")};
    const QCommandLineOption meter{QStringLiteral("meter"),
                                   QStringLiteral("what measures each file before its gain: ebur128 (default), the "
                                                  "BS.1770 reference meter at the file's own rate, which also checks "
                                                  "every result; or loudnorm, FFmpeg's loudnorm filter at 192 kHz, "
                                                  "for the same figures as an ffmpeg two-pass script (slower)"),
                                   QStringLiteral("METER")};
    const QCommandLineOption dualMono{QStringLiteral("dual-mono"),
                                      QStringLiteral("measure mono files as if played on two speakers (+3 dB), "
                                                     "as several platforms do")};
    const QCommandLineOption quick{QStringLiteral("quick"),
                                   QStringLiteral("accepted for older scripts: the reference meter it chose is now "
                                                  "the default")};
    const QCommandLineOption album{QStringLiteral("album"),
                                   QStringLiteral("treat files with the same album tag (and album artist), or "
                                                  "else in the same folder, as one album: every track moves by "
                                                  "the album's gain, so their balance stays")};
    const QCommandLineOption tagsOnly{QStringLiteral("tags-only"),
                                      QStringLiteral("measure and write ReplayGain 2.0 tags (-18 LUFS; R128_* in "
                                                     "Opus) instead of changing the audio; in place, or into "
                                                     "copies with --output-folder")};
    const QCommandLineOption lossless{QStringLiteral("lossless"),
                                      QStringLiteral("change only the gain fields of Opus in Ogg (its header "
                                                     "gain, exactly) and MP3 (whole 1.5 dB steps under the "
                                                     "ceiling), copying every coded packet; other formats are "
                                                     "normalised the usual way. With --tags-only, ReplayGain "
                                                     "tags carry the rest")};
    const QCommandLineOption undoLossless{QStringLiteral("undo-lossless"),
                                          QStringLiteral("put back the gain fields a --lossless run changed, "
                                                         "as the file records them; in place, or into copies "
                                                         "with --output-folder")};
    const QCommandLineOption skipWithin{QStringLiteral("skip-within"),
                                        QStringLiteral("leave files already within LU of the target, or made "
                                                       "before with the same settings (as their tag says: "
                                                       "not even decoded), untouched and report them as "
                                                       "skipped; with --tags-only, files tagged before"),
                                        QStringLiteral("LU")};
    const QCommandLineOption plot{QStringLiteral("plot"),
                                  QStringLiteral("write a picture of each file's loudness over time to "
                                                 "DIR/<file name>.png (created if missing)"),
                                  QStringLiteral("DIR")};
    const QCommandLineOption report{QStringLiteral("report"),
                                    QStringLiteral("write a compliance report to FILE (.html, .pdf or .csv): "
                                                   "each file's figures, before and after, against the "
                                                   "standard's limits, with its picture; judged by --preset, "
                                                   "else by the preset whose level is the target, else by the "
                                                   "target and --true-peak"),
                                    QStringLiteral("FILE")};
    const QCommandLineOption outFolder{{QStringLiteral("o"), QStringLiteral("output-folder")},
                                       QStringLiteral("write results into DIR under free names "
                                                      "(created if missing)"),
                                       QStringLiteral("DIR")};
    const QCommandLineOption replace{QStringLiteral("replace"),
                                     QStringLiteral("replace each original with its result")};
    const QCommandLineOption preserveMtime{QStringLiteral("preserve-mtime"),
                                           QStringLiteral("with --replace, keep each original's modification time")};
    const QCommandLineOption recursive{{QStringLiteral("r"), QStringLiteral("recursive")},
                                       QStringLiteral("descend into sub-folders")};
    const QCommandLineOption jobs;
    const QCommandLineOption cache{QStringLiteral("cache"),
                                   QStringLiteral("keep measurements in the database FILE (or DIR/measurements.sqlite) "
                                                  "instead of $XDG_CACHE_HOME/evenloud/measurements.sqlite"),
                                   QStringLiteral("PATH")};
    const QCommandLineOption noCache{QStringLiteral("no-cache"),
                                     QStringLiteral("measure every file, neither reading nor keeping measurements "
                                                    "of earlier runs")};
    const QCommandLineOption json{QStringLiteral("json"),
                                  QStringLiteral("print the results as a JSON array, one object per file")};
    const QCommandLineOption jsonl{QStringLiteral("jsonl"),
                                   QStringLiteral("print each file's result as one line of JSON as soon as it "
                                                  "ends (JSON Lines; the objects of --json), instead of the table")};
    const QCommandLineOption filesFrom{QStringLiteral("files-from"),
                                       QStringLiteral("also take the files and folders listed in FILE, one a line "
                                                      "(- reads standard input)"),
                                       QStringLiteral("FILE")};
    const QCommandLineOption nul{{QStringLiteral("0"), QStringLiteral("null")},
                                 QStringLiteral("the --files-from list is separated by NUL characters, as "
                                                "find -print0 writes it")};
    const QCommandLineOption journal{QStringLiteral("journal"),
                                     QStringLiteral("record each finished file in FILE; the same command with the "
                                                    "same journal, after an interruption or a kill, skips what was "
                                                    "done and finishes the rest"),
                                     QStringLiteral("FILE")};
    const QCommandLineOption shard{QStringLiteral("shard"),
                                   QStringLiteral("process only the K-th of N shares of the files (K from 1 to "
                                                  "N), chosen by their paths below the folders given, so N "
                                                  "processes on any machines split one library"),
                                   QStringLiteral("K/N")};
    const QCommandLineOption watch{QStringLiteral("watch"),
                                   QStringLiteral("watch DIR as a hot folder: process the files in it, then each "
                                                  "file that arrives, once complete, until stopped by a signal"),
                                   QStringLiteral("DIR")};
    const QCommandLineOption settle{QStringLiteral("settle"),
                                    QStringLiteral("with --watch, on file systems that report no closed files "
                                                   "(network mounts): take a file once its size and time have "
                                                   "been still this long (default 5)"),
                                    QStringLiteral("SECONDS")};
    const QCommandLineOption doneFolder{QStringLiteral("done-folder"),
                                        QStringLiteral("with --watch, move each original into DIR once its result "
                                                       "is placed (created if missing)"),
                                        QStringLiteral("DIR")};
    const QCommandLineOption failedFolder{QStringLiteral("failed-folder"),
                                          QStringLiteral("with --watch, move each file that fails into DIR, with "
                                                         "the reason in a .txt file beside it (created if missing)"),
                                          QStringLiteral("DIR")};
    const QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("show this help and exit")};
    const QCommandLineOption version{{QStringLiteral("V"), QStringLiteral("version")},
                                     QStringLiteral("show the version and exit")};

    QList<QCommandLineOption> all() const
    {
        return {target, lufs, preset, truePeak, limitPeaks, analyze, meter, dualMono, quick, album, tagsOnly,
                lossless, undoLossless, skipWithin, plot, report, outFolder, replace, preserveMtime, recursive, jobs,
                cache, noCache, json, jsonl, filesFrom, nul, journal, shard, watch, settle, doneFolder, failedFolder,
                help, version};
    }
};

// Each step below reads its share of the command line into o, and returns
// the usage error that stops the parse, if any. They run in this order, so
// of several mistakes the same one is reported first.
using Problem = std::optional<QString>;

// --target, --lufs or --preset: the position every item takes.
Problem readTarget(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    if (int(parser.isSet(x.target)) + int(parser.isSet(x.lufs)) + int(parser.isSet(x.preset)) > 1)
        return QStringLiteral("--target, --lufs and --preset are alternatives; give one");
    if (parser.isSet(x.target)) {
        const QString text = parser.value(x.target).trimmed();
        const auto v = parseNumber(text);
        // A level typed where the position goes would make a near-silent file.
        if ((v && *v < 0.0) || text.contains(QRegularExpression(QStringLiteral("^-|lufs|lu$|db"),
                                                                  QRegularExpression::CaseInsensitiveOption)))
            return QStringLiteral("--target '%1' looks like a loudness in LUFS: --target takes "
                                  "the 0-100 position; give a level with --lufs")
                .arg(parser.value(x.target));
        if (!v || !VXJobSettings::isValidTarget(*v))
            return QStringLiteral("invalid --target '%1': expected a number from 0 to 100").arg(parser.value(x.target));
        o.settings.targetLoudness = float(*v);
    } else if (parser.isSet(x.lufs)) {
        const auto v = parseNumber(parser.value(x.lufs));
        const auto position = v ? VXLoudnessScale::positionForLufs(*v) : std::nullopt;
        if (!position)
            return QStringLiteral("invalid --lufs '%1': expected a loudness from -70 to -5").arg(parser.value(x.lufs));
        o.settings.targetLoudness = *position;
    } else if (parser.isSet(x.preset)) {
        const VXPreset *p = VXPresetNamed(parser.value(x.preset).trimmed().toLower().toStdString());
        if (!p)
            return QStringLiteral("unknown --preset '%1': expected %2").arg(parser.value(x.preset), presetNames());
        o.preset = QString::fromLatin1(p->name.data(), qsizetype(p->name.size()));
        o.settings.targetLoudness = *VXLoudnessScale::positionForLufs(p->lufs);
        if (!std::isnan(p->truePeak))
            o.settings.truePeakCeiling = p->truePeak;  // an explicit --true-peak still wins, next
    }
    return std::nullopt;
}

// The ceiling, the limiter, how many at once, the skipping window.
Problem readLimits(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    if (parser.isSet(x.truePeak)) {
        const auto v = parseNumber(parser.value(x.truePeak));
        if (!v || !VXJobSettings::isValidCeiling(*v))
            return QStringLiteral("invalid --true-peak '%1': expected a ceiling from -9 to 0 dBTP")
                .arg(parser.value(x.truePeak));
        o.settings.truePeakCeiling = float(*v);
    }
    o.settings.limitPeaks = parser.isSet(x.limitPeaks);
    if (parser.isSet(x.jobs)) {
        bool ok = false;
        o.jobs = parser.value(x.jobs).toInt(&ok);
        if (!ok || o.jobs < 1 || o.jobs > 256)
            return QStringLiteral("invalid --jobs '%1': expected a whole number from 1 to 256").arg(parser.value(x.jobs));
    }
    if (parser.isSet(x.skipWithin)) {
        const auto v = parseNumber(parser.value(x.skipWithin));
        // parseNumber gives no NaN, which would pass as "skip nothing".
        if (!v || !VXJobSettings::isValidSkipWithin(*v))
            return QStringLiteral("invalid --skip-within '%1': expected a number of LU from 0 to 20")
                .arg(parser.value(x.skipWithin));
        o.settings.skipWithin = *v;
    }
    return std::nullopt;
}

// Pictures, the meter, and what kind of run this is.
Problem readModes(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    if (parser.isSet(x.plot)) {
        if (parser.value(x.plot).isEmpty())
            return QStringLiteral("--plot needs a folder");
        o.plotFolder = QDir::cleanPath(QFileInfo(parser.value(x.plot)).absoluteFilePath());
    }
    if (parser.isSet(x.report)) {
        if (VXReportFormatOf(parser.value(x.report)) == VXReportFormat::Unknown)
            return QStringLiteral("invalid --report '%1': the file's name ends in .html, .pdf or .csv")
                .arg(parser.value(x.report));
        o.reportFile = QDir::cleanPath(QFileInfo(parser.value(x.report)).absoluteFilePath());
    }
    if (parser.isSet(x.meter)) {
        const QString name = parser.value(x.meter).toLower();
        if (name != QLatin1String(VXMeterEbur128) && name != QLatin1String(VXMeterLoudnorm))
            return QStringLiteral("invalid --meter '%1': expected ebur128 or loudnorm").arg(parser.value(x.meter));
        o.settings.measureWithLoudnorm = name == QLatin1String(VXMeterLoudnorm);
    }
    o.settings.dualMono = parser.isSet(x.dualMono);
    o.analyze = parser.isSet(x.analyze);
    o.settings.treatAsAlbums = parser.isSet(x.album);
    o.settings.tagsOnly = parser.isSet(x.tagsOnly);
    o.settings.lossless = parser.isSet(x.lossless);
    o.settings.undoLossless = parser.isSet(x.undoLossless);
    if (o.settings.undoLossless
        && (o.analyze || o.settings.lossless || o.settings.tagsOnly || o.settings.treatAsAlbums
            || parser.isSet(x.skipWithin) || parser.isSet(x.limitPeaks)))
        return QStringLiteral("--undo-lossless only puts back what the files record: --analyze, --lossless, "
                              "--tags-only, --album, --limit-peaks and --skip-within do not go with it");
    if (o.settings.lossless && o.analyze)
        return QStringLiteral("--analyze writes nothing: --lossless does not go with it");
    // With --skip-within, tags-only skips the files it tagged before.
    if (o.settings.tagsOnly && !o.settings.lossless
        && (o.analyze || parser.isSet(x.replace) || parser.isSet(x.limitPeaks)))
        return QStringLiteral("--tags-only changes no audio: --analyze, --replace and --limit-peaks "
                              "do not go with it");
    return std::nullopt;
}

// Where results go, and what to read.
Problem readPlaces(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    o.replace = parser.isSet(x.replace);
    o.settings.preserveModificationTime = parser.isSet(x.preserveMtime);
    const bool preserveMtime = o.settings.preserveModificationTime;
    if (o.analyze && (o.replace || preserveMtime || parser.isSet(x.outFolder) || parser.isSet(x.skipWithin)))
        return QStringLiteral("--analyze writes nothing: --output-folder, --replace, "
                              "--preserve-mtime and --skip-within do not go with it");
    const bool inPlaceByDefault = o.settings.tagsOnly || o.settings.undoLossless;
    if (preserveMtime && !o.replace && !inPlaceByDefault)
        return QStringLiteral("--preserve-mtime goes with --replace");
    if (parser.isSet(x.outFolder)) {
        if (o.replace)
            return QStringLiteral("--output-folder and --replace exclude each other");
        if (parser.value(x.outFolder).isEmpty())
            return QStringLiteral("--output-folder needs a folder");
        o.outputFolder = QDir::cleanPath(QFileInfo(parser.value(x.outFolder)).absoluteFilePath());
    } else if (!o.replace && !o.analyze && !inPlaceByDefault) {
        return QStringLiteral("no output folder: give --output-folder DIR, or --replace to overwrite the originals");
    }
    o.recursive = parser.isSet(x.recursive);
    if (parser.isSet(x.cache) && parser.isSet(x.noCache))
        return QStringLiteral("--cache and --no-cache exclude each other");
    if (parser.isSet(x.cache)) {
        if (parser.value(x.cache).isEmpty())
            return QStringLiteral("--cache needs a file or folder");
        o.cache = {VXMeasureCache::Location::File, parser.value(x.cache)};
    } else if (parser.isSet(x.noCache)) {
        o.cache.kind = VXMeasureCache::Location::Off;
    }
    o.inputs = parser.positionalArguments();
    if (parser.isSet(x.filesFrom)) {
        if (parser.value(x.filesFrom).isEmpty())
            return QStringLiteral("--files-from needs a file, or - for standard input");
        o.filesFrom = parser.value(x.filesFrom);
    }
    o.nulSeparated = parser.isSet(x.nul);
    if (o.nulSeparated && o.filesFrom.isEmpty())
        return QStringLiteral("-0 describes the --files-from list: give --files-from too");
    if (o.inputs.isEmpty() && o.filesFrom.isEmpty() && o.watchFolder.isEmpty())
        return QStringLiteral("no input files or folders");
    return std::nullopt;
}

// What is reported, what is remembered, and which share of the files is ours.
Problem readRun(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    o.json = parser.isSet(x.json);
    o.jsonl = parser.isSet(x.jsonl);
    if (o.json && o.jsonl)
        return QStringLiteral("--json and --jsonl are alternatives; give one");
    if (parser.isSet(x.journal)) {
        if (parser.value(x.journal).isEmpty())
            return QStringLiteral("--journal needs a file");
        o.journal = QDir::cleanPath(QFileInfo(parser.value(x.journal)).absoluteFilePath());
    }
    if (parser.isSet(x.shard)) {
        static const QRegularExpression form(QStringLiteral("^\\s*(\\d+)\\s*/\\s*(\\d+)\\s*$"));
        const QRegularExpressionMatch m = form.match(parser.value(x.shard));
        const int k = m.hasMatch() ? m.captured(1).toInt() : 0;
        const int n = m.hasMatch() ? m.captured(2).toInt() : 0;
        if (n < 1 || n > 1000000 || k < 1 || k > n)
            return QStringLiteral("invalid --shard '%1': expected K/N with 1 <= K <= N").arg(parser.value(x.shard));
        o.shardK = k;
        o.shardN = n;
    }
    return std::nullopt;
}

QString absoluteFolder(const QString &path) { return QDir::cleanPath(QFileInfo(path).absoluteFilePath()); }

// A hot folder, and where its files go once done or failed.
Problem readWatch(const QCommandLineParser &parser, const Options &x, CliOptions &o)
{
    if (!parser.isSet(x.watch)) {
        for (const QCommandLineOption *only : {&x.settle, &x.doneFolder, &x.failedFolder})
            if (parser.isSet(*only))
                return QStringLiteral("--%1 goes with --watch").arg(only->names().constFirst());
        return std::nullopt;
    }
    if (parser.value(x.watch).isEmpty())
        return QStringLiteral("--watch needs a folder");
    o.watchFolder = absoluteFolder(parser.value(x.watch));
    if (!parser.positionalArguments().isEmpty() || parser.isSet(x.filesFrom) || parser.isSet(x.shard))
        return QStringLiteral("--watch takes its files from the folder: give no FILE, --files-from or --shard");
    // An album is never known to be complete while its tracks arrive one by one.
    if (parser.isSet(x.album))
        return QStringLiteral("--album does not go with --watch: files arrive one at a time");
    if (parser.isSet(x.report))
        return QStringLiteral("--report does not go with --watch: a watch has no end to report at; "
                              "use --jsonl");
    if (parser.isSet(x.settle)) {
        const auto v = parseNumber(parser.value(x.settle));
        if (!v || *v < 1.0 || *v > 3600.0)
            return QStringLiteral("invalid --settle '%1': expected a number of seconds from 1 to 3600")
                .arg(parser.value(x.settle));
        o.settleMsecs = qint64(*v * 1000.0);
    }
    const std::pair<const QCommandLineOption *, QString *> folders[]
        = {{&x.doneFolder, &o.doneFolder}, {&x.failedFolder, &o.failedFolder}};
    for (const auto &[option, folder] : folders) {
        if (!parser.isSet(*option))
            continue;
        if (parser.value(*option).isEmpty())
            return QStringLiteral("--%1 needs a folder").arg(option->names().constFirst());
        *folder = absoluteFolder(parser.value(*option));
        if (*folder == o.watchFolder)
            return QStringLiteral("--%1 cannot be the watched folder").arg(option->names().constFirst());
    }
    // Results written where the watch looks would be taken again as new files.
    if (parser.isSet(x.outFolder) && absoluteFolder(parser.value(x.outFolder)) == o.watchFolder)
        return QStringLiteral("--output-folder cannot be the watched folder: its results would be taken again; "
                              "give --replace to write them in place");
    return std::nullopt;
}

} // namespace

CliParse parseCommandLine(const QStringList &arguments, int defaultJobs)
{
    const Options x(defaultJobs);
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.addOptions(x.all());

    CliParse result;
    result.exitCode = 2;
    if (!parser.parse(arguments)) {
        result.text = usageError(parser.errorText());
        return result;
    }
    if (parser.isSet(x.help) || parser.isSet(x.version)) {
        result.text = parser.isSet(x.help) ? helpText(x.all())
                                           : QStringLiteral("%1 %2\n").arg(kProgram, QStringLiteral(EVENLOUD_VERSION));
        result.exitCode = 0;
        return result;
    }
    CliOptions o;
    o.jobs = defaultJobs;
    for (auto step : {readTarget, readLimits, readModes, readWatch, readPlaces, readRun}) {
        if (const Problem problem = step(parser, x, o)) {
            result.text = usageError(*problem);
            return result;
        }
    }
    result.options = o;
    result.exitCode = 0;
    return result;
}
