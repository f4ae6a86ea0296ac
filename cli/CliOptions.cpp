#include "cli/CliOptions.h"

#include "engine/VXImport.h"
#include "engine/codec/VXCodecConstants.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>

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
    text += QStringLiteral("Usage: %1 [--target POS | --lufs LUFS] [--true-peak DBTP] [--limit-peaks]\n"
                           "                    (--output-folder DIR | --replace [--preserve-mtime])\n"
                           "                    [--recursive] [--jobs N] [--json] FILE|DIR...\n")
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
        "\nProgress goes to standard error (live bars on a terminal, one line per\n"
        "file otherwise); the results table, or JSON with --json, to standard output.\n"
        "Ctrl-C cancels cleanly: nothing partial is left and no original is touched;\n"
        "a second Ctrl-C quits at once.\n");
    text += QStringLiteral("\nExit status:\n"
                           "  0    all files succeeded\n"
                           "  1    some file failed, was refused or is missing, or none was found\n"
                           "  2    usage error\n"
                           "  130  interrupted (Ctrl-C); 143 terminated (SIGTERM): 128 + the signal\n");
    text += QStringLiteral("\nExamples:\n"
                           "  %1 --lufs -16 --output-folder out/ --recursive music/\n"
                           "  %1 --replace --json podcast.mp3\n"
                           "  %1 --lufs -14 --true-peak -1 --limit-peaks -o out/ album/\n")
                .arg(kProgram);
    return text;
}

std::optional<double> parseNumber(const QString &text)
{
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(v))
        return std::nullopt;
    return v;
}

} // namespace

float lufsForPosition(float position)
{
    const float d = VXMaxIntegratedLoudnessTarget - VXMinIntegratedLoudnessTarget;
    return (position * d) / 100.0f + VXMinIntegratedLoudnessTarget;
}

std::optional<float> positionForLufs(double lufs)
{
    if (!(lufs >= VXMinIntegratedLoudnessTarget && lufs <= VXMaxIntegratedLoudnessTarget))
        return std::nullopt;
    const double d = double(VXMaxIntegratedLoudnessTarget) - double(VXMinIntegratedLoudnessTarget);
    const float position = float(std::clamp((lufs - VXMinIntegratedLoudnessTarget) * 100.0 / d, 0.0, 100.0));
    if (std::fabs(double(lufsForPosition(position)) - lufs) > 0.01)
        return std::nullopt;
    return position;
}

CliParse parseCommandLine(const QStringList &arguments, int defaultJobs)
{
    const QCommandLineOption target({QStringLiteral("t"), QStringLiteral("target")},
                                    QStringLiteral("target position 0-100 on the -70..-5 LUFS scale "
                                                   "(default 70.77, i.e. -24 LUFS)"),
                                    QStringLiteral("POS"));
    const QCommandLineOption lufs({QStringLiteral("l"), QStringLiteral("lufs")},
                                  QStringLiteral("target loudness in LUFS, -70 to -5"),
                                  QStringLiteral("LUFS"));
    const QCommandLineOption truePeak(QStringLiteral("true-peak"),
                                      QStringLiteral("true-peak ceiling in dBTP, -9 to 0 (default -2); a gain "
                                                     "that would push peaks past it stops there"),
                                      QStringLiteral("DBTP"));
    const QCommandLineOption limitPeaks(QStringLiteral("limit-peaks"),
                                        QStringLiteral("reach the target anyway, holding the peaks under the "
                                                       "ceiling with a true-peak limiter"));
    const QCommandLineOption outFolder({QStringLiteral("o"), QStringLiteral("output-folder")},
                                       QStringLiteral("write results into DIR under free names "
                                                      "(created if missing)"),
                                       QStringLiteral("DIR"));
    const QCommandLineOption replace(QStringLiteral("replace"),
                                     QStringLiteral("replace each original with its result"));
    const QCommandLineOption preserveMtime(QStringLiteral("preserve-mtime"),
                                           QStringLiteral("with --replace, keep each original's modification time"));
    const QCommandLineOption recursive({QStringLiteral("r"), QStringLiteral("recursive")},
                                       QStringLiteral("descend into sub-folders"));
    const QCommandLineOption jobs({QStringLiteral("j"), QStringLiteral("jobs")},
                                  QStringLiteral("files processed at once (default: %1, the cores)")
                                      .arg(defaultJobs),
                                  QStringLiteral("N"));
    const QCommandLineOption json(QStringLiteral("json"),
                                  QStringLiteral("print the results as a JSON array, one object per file"));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("show this help and exit"));
    const QCommandLineOption version({QStringLiteral("V"), QStringLiteral("version")},
                                     QStringLiteral("show the version and exit"));
    const QList<QCommandLineOption> all = {target, lufs, truePeak, limitPeaks, outFolder, replace,
                                           preserveMtime, recursive, jobs, json, help, version};

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.addOptions(all);

    CliParse result;
    result.exitCode = 2;
    if (!parser.parse(arguments)) {
        result.text = usageError(parser.errorText());
        return result;
    }
    if (parser.isSet(help)) {
        result.text = helpText(all);
        result.exitCode = 0;
        return result;
    }
    if (parser.isSet(version)) {
        result.text = QStringLiteral("%1 %2\n").arg(kProgram, QStringLiteral(EVENLOUD_VERSION));
        result.exitCode = 0;
        return result;
    }

    CliOptions o;
    o.jobs = defaultJobs;
    if (parser.isSet(target) && parser.isSet(lufs)) {
        result.text = usageError(QStringLiteral("--target and --lufs are alternatives; give one"));
        return result;
    }
    if (parser.isSet(target)) {
        const auto v = parseNumber(parser.value(target));
        if (!v || *v < 0.0 || *v > 100.0) {
            result.text = usageError(QStringLiteral("invalid --target '%1': expected a number from 0 to 100")
                                         .arg(parser.value(target)));
            return result;
        }
        o.target = float(*v);
    } else if (parser.isSet(lufs)) {
        const auto v = parseNumber(parser.value(lufs));
        const auto position = v ? positionForLufs(*v) : std::nullopt;
        if (!position) {
            result.text = usageError(QStringLiteral("invalid --lufs '%1': expected a loudness from -70 to -5")
                                         .arg(parser.value(lufs)));
            return result;
        }
        o.target = *position;
    }
    if (parser.isSet(truePeak)) {
        const auto v = parseNumber(parser.value(truePeak));
        if (!v || *v < VXMinTruePeakTarget || *v > VXMaxTruePeakTarget) {
            result.text = usageError(QStringLiteral("invalid --true-peak '%1': expected a ceiling from -9 to 0 dBTP")
                                         .arg(parser.value(truePeak)));
            return result;
        }
        o.truePeak = float(*v);
    }
    o.limitPeaks = parser.isSet(limitPeaks);
    if (parser.isSet(jobs)) {
        bool ok = false;
        o.jobs = parser.value(jobs).toInt(&ok);
        if (!ok || o.jobs < 1 || o.jobs > 256) {
            result.text = usageError(QStringLiteral("invalid --jobs '%1': expected a whole number from 1 to 256")
                                         .arg(parser.value(jobs)));
            return result;
        }
    }
    o.replace = parser.isSet(replace);
    o.preserveMtime = parser.isSet(preserveMtime);
    if (o.preserveMtime && !o.replace) {
        result.text = usageError(QStringLiteral("--preserve-mtime goes with --replace"));
        return result;
    }
    if (parser.isSet(outFolder)) {
        if (o.replace) {
            result.text = usageError(QStringLiteral("--output-folder and --replace exclude each other"));
            return result;
        }
        if (parser.value(outFolder).isEmpty()) {
            result.text = usageError(QStringLiteral("--output-folder needs a folder"));
            return result;
        }
        o.outputFolder = QDir::cleanPath(QFileInfo(parser.value(outFolder)).absoluteFilePath());
    } else if (!o.replace) {
        result.text = usageError(QStringLiteral(
            "no output folder: give --output-folder DIR, or --replace to overwrite the originals"));
        return result;
    }
    o.recursive = parser.isSet(recursive);
    o.json = parser.isSet(json);
    o.inputs = parser.positionalArguments();
    if (o.inputs.isEmpty()) {
        result.text = usageError(QStringLiteral("no input files or folders"));
        return result;
    }
    result.options = o;
    result.exitCode = 0;
    return result;
}
