#include "app/RQCommandLine.h"

#include "app/RQDebugDriver.h"

#include <QCommandLineParser>
#include <QDir>
#include <QUrl>

#ifndef PROJECT_VERSION
#define PROJECT_VERSION "0.0.0"
#endif

namespace {
QString helpText()
{
    return QStringLiteral(
        "Usage: evenloud [FILE|DIR]...\n"
        "Bring audio and video files to one loudness, in a window.\n\n"
        "Files and folders given are added to the list as if they were dropped on it.\n"
        "When Evenloud is already open, they are handed to that window.\n\n"
        "Options:\n"
        "  -h, --help     show this help and exit\n"
        "  -v, --version  show the version and exit\n\n"
        "evenloud-cli does the same work without a window; see evenloud-cli --help.\n");
}
} // namespace

RQCommandLine RQCommandLine::parse(const QStringList &arguments, const QString &workingDirectory)
{
    RQCommandLine result;
    QCommandLineParser parser;
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption version(QStringList{QStringLiteral("v"), QStringLiteral("version")});
    parser.addOption(help);
    parser.addOption(version);
    const QList<QCommandLineOption> debug = RQDebugDriver::options();
    for (const QCommandLineOption &option : debug)
        parser.addOption(option);
    if (!parser.parse(arguments)) {
        result.outcome = Error;
        result.text = QStringLiteral("evenloud: %1\nTry 'evenloud --help' for more information.\n")
                          .arg(parser.errorText());
        return result;
    }
    if (parser.isSet(help)) {
        result.outcome = Help;
        result.text = helpText();
        return result;
    }
    if (parser.isSet(version)) {
        result.outcome = Version;
        result.text = QStringLiteral("evenloud %1\n").arg(QStringLiteral(PROJECT_VERSION));
        return result;
    }
    for (const QCommandLineOption &option : debug)
        result.scripted = result.scripted || parser.isSet(option);
    const QDir base(workingDirectory);
    for (const QString &argument : parser.positionalArguments()) {
        // Some file managers pass URLs even for local files.
        const QUrl url(argument);
        const QString path = url.isLocalFile() ? url.toLocalFile() : argument;
        result.paths << QDir::cleanPath(base.absoluteFilePath(path));
    }
    return result;
}
