#pragma once

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <gtest/gtest.h>

// The command-line tool run to its end, as a user or a script runs it.
struct CliRunResult {
    int exitCode = -1;
    QString out;
    QString err;
    QJsonArray json() const { return QJsonDocument::fromJson(out.toUtf8()).array(); }
};

inline CliRunResult runCli(const QStringList &args,
                           const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment(),
                           const QString &workingDirectory = {})
{
    QProcess p;
    p.setProcessEnvironment(env);
    p.setWorkingDirectory(workingDirectory);
    p.setStandardInputFile(QProcess::nullDevice());
    p.start(QStringLiteral(EVENLOUD_CLI), args);
    CliRunResult r;
    if (!p.waitForStarted(-1) || !p.waitForFinished(300000))
        return r;
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

// Waits while the started tool runs until it says a file has started (with
// standard error a pipe, it prints a line then); what it printed goes to *err.
inline bool waitForFileStart(QProcess &p, QByteArray *err)
{
    while (!err->contains("start") && p.state() == QProcess::Running) {
        p.waitForReadyRead(1000);
        *err += p.readAllStandardError();
    }
    return err->contains("start");
}

inline QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
}

// Each test in a fresh folder of its own.
class CliFolderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(tmp.isValid()); }
    QTemporaryDir tmp;
};
using CliRun = CliFolderTest;
using CliAnalyze = CliFolderTest;
using CliMeter = CliFolderTest;
using CliAlbum = CliFolderTest;
using CliTags = CliFolderTest;
