#pragma once

#include <QString>
#include <QStringList>

// The window's own command line: --help, --version, files and folders to
// add, and the debug driver's hidden flags (RQDebugDriver). Read before the
// application object exists, so help and version need no display.
struct RQCommandLine {
    enum Outcome { Run, Help, Version, Error };
    Outcome outcome = Run;
    // Help or version text for standard output, the error for standard error.
    QString text;
    // Absolute paths of the files and folders given (file: URLs accepted).
    QStringList paths;
    // Some debug flag was given: the run is scripted and stays on its own.
    bool scripted = false;

    static RQCommandLine parse(const QStringList &arguments, const QString &workingDirectory);
};
