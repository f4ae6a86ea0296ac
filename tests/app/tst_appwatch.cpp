// File > Watch Folder...: files that arrive in a folder become rows and run
// at once; the bottom bar shows the watch and its count; the watch ends with
// the window and never runs beside another watch of the same folders.
#include "AppTestUtil.h"

#include "app/RQWatchController.h"
#include "engine/VXJournal.h"
#include "engine/VXWatchRules.h"

#include <QAction>
#include <QFileDialog>
#include <QLabel>

using namespace apptest;

class TestAppWatch : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        // The journal of a watch goes here, not into the user's home.
        qputenv("XDG_STATE_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("state"))));
    }

    void arrivalsBecomeRowsThatRunOnce()
    {
        const QString in = m_dir.filePath(QStringLiteral("in")), out = m_dir.filePath(QStringLiteral("out"));
        const QString staging = m_dir.filePath(QStringLiteral("staging"));
        QVERIFY(QDir().mkpath(in) && QDir().mkpath(out) && QDir().mkpath(staging));
        Controller c;
        RQWatchController *watch = c->watchController();
        // The menu asks for the folder; with no output folder yet, the watch
        // says why it cannot start.
        c->watchFolderAction()->trigger();
        auto *dialog = qobject_cast<QFileDialog *>(c->currentDialog());
        QVERIFY(dialog);
        QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
        dialog->reject();
        QVERIFY(!watch->start(in));
        QVERIFY(!watch->isWatching());

        c->setOutFolder(out);
        QVERIFY(watch->start(in));
        QCOMPARE(c->watchFolderAction()->text(), QStringLiteral("Stop &Watching Folder"));
        QVERIFY(!c->watchStatusLabel()->isHidden());
        QCOMPARE(c->watchStatusLabel()->text(), QStringLiteral("Watching in · 0 done"));
        // The service cannot take the same folders meanwhile.
        QVERIFY(!VXJournal::open(VXWatchRules::defaultJournalPath(in, out), QStringLiteral("any")));

        const QString made = makeWav(staging, QStringLiteral("arrival.wav"), 2.0);
        QVERIFY(!made.isEmpty());
        QVERIFY(QFile::rename(made, in + QStringLiteral("/arrival.wav")));
        QVERIFY(waitFor([&] { return c->audioGains()->count() == 1; }));
        const VXAudioGainPtr item = c->audioGains()->at(0);
        QCOMPARE(item->inputFileName(), QStringLiteral("arrival.wav"));
        QVERIFY(waitFor([&] { return watch->doneCount() == 1; }));
        QCOMPARE(item->retCode(), qint64(VXGainSucceeded));
        QCOMPARE(QDir(out).entryList(QDir::Files), QStringList{QStringLiteral("arrival.wav")});
        QCOMPARE(c->watchStatusLabel()->text(), QStringLiteral("Watching in · 1 done"));
        QCOMPARE(c->audioGains()->count(), 1);

        c->applicationWillTerminate();
        QVERIFY(!watch->isWatching());
        QVERIFY(c->watchStatusLabel()->isHidden());
        QCOMPARE(c->watchFolderAction()->text(), QStringLiteral("&Watch Folder…"));
        QVERIFY(VXJournal::open(VXWatchRules::defaultJournalPath(in, out), QStringLiteral("any")));
    }

    // Files already there are taken when the watch starts; a watch started
    // again does not do them twice; a file that cannot be read is counted
    // as failed, once, and the watch goes on.
    void doneFilesStayDoneAndFailuresAreCounted()
    {
        const QString in = m_dir.filePath(QStringLiteral("in2")), out = m_dir.filePath(QStringLiteral("out2"));
        const QString staging = m_dir.filePath(QStringLiteral("staging2"));
        QVERIFY(QDir().mkpath(in) && QDir().mkpath(out) && QDir().mkpath(staging));
        QVERIFY(!makeWav(in, QStringLiteral("existing.wav"), 1.0).isEmpty());
        Controller c;
        c->setOutFolder(out);
        RQWatchController *watch = c->watchController();
        QVERIFY(watch->start(in));
        QVERIFY(waitFor([&] { return watch->doneCount() == 1; }));
        watch->stop();

        QVERIFY(watch->start(in));
        QFile bad(in + QStringLiteral("/bad.wav"));
        QVERIFY(bad.open(QIODevice::WriteOnly) && bad.write(QByteArray(20000, 'z')) == 20000);
        bad.close();
        const QString made = makeWav(staging, QStringLiteral("later.wav"), 1.0);
        QVERIFY(QFile::rename(made, in + QStringLiteral("/later.wav")));
        QVERIFY(waitFor([&] { return watch->doneCount() == 1 && watch->failedCount() == 1; }));
        QCOMPARE(c->watchStatusLabel()->text(), QStringLiteral("Watching in2 · 1 done · 1 failed"));
        QCOMPARE(c.sortedNames(), (QStringList{QStringLiteral("existing.wav"), QStringLiteral("later.wav")}));
        QCOMPARE(QDir(out).entryList(QDir::Files, QDir::Name),
                 (QStringList{QStringLiteral("existing.wav"), QStringLiteral("later.wav")}));
        watch->stop();
        QVERIFY(c->watchStatusLabel()->isHidden());
    }
};

QTEST_MAIN(TestAppWatch)
#include "tst_appwatch.moc"
