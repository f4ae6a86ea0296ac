// The window at scale, driven offscreen as a user would: import 10,000 short
// files (a third without cover art, the rest with one of twenty full-size
// covers), select all, Analyze, Gain into a folder, clear. For each phase it
// prints the time, the event loop's worst and 99th-percentile gap (a 5 ms
// heartbeat) and the peak RSS; only a deadlock-sized gap fails the run.
//
// EVENLOUD_APPSCALE_FILES sets the count (a quick look at the phases needs
// far fewer); EVENLOUD_APPSCALE_PHASES=import stops after the import.
#include "tests/app/AppTestUtil.h"
#include "engine/codec/VXWorker.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPushButton>
#include <QTimer>
#include <algorithm>
#include <sys/resource.h>
#include <vector>

using namespace apptest;

namespace {

// Every gap between two ticks of a 5 ms timer, while it runs.
class Heartbeat {
public:
    Heartbeat()
    {
        m_timer.setInterval(5);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { m_gaps.push_back(m_clock.restart()); });
        m_gaps.reserve(1 << 16);
        m_clock.start();
        m_timer.start();
    }
    qint64 worst() const { return m_gaps.empty() ? 0 : *std::max_element(m_gaps.begin(), m_gaps.end()); }
    qint64 percentile99() const
    {
        if (m_gaps.empty())
            return 0;
        std::vector<qint64> sorted = m_gaps;
        const size_t at = (sorted.size() * 99) / 100;
        std::nth_element(sorted.begin(), sorted.begin() + at, sorted.end());
        return sorted[at];
    }
    size_t over(qint64 msecs) const
    {
        return size_t(std::count_if(m_gaps.begin(), m_gaps.end(), [msecs](qint64 g) { return g > msecs; }));
    }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    std::vector<qint64> m_gaps;
};

constexpr qint64 kDeadlockMsecs = 2000;

long peakRssMb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

// Runs a real event loop until pred holds, as the application's own would:
// QTest's waits sleep between rounds, and that would be counted as the app's.
bool runUntil(const std::function<bool()> &pred, int msecs = 3600000)
{
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (pred())
            loop.quit();
    });
    check.start(1);
    QTimer::singleShot(msecs, &loop, &QEventLoop::quit);
    loop.exec();
    return pred();
}

void report(const char *phase, qint64 msecs, const Heartbeat &beat)
{
    qInfo("%-8s %7lld ms  worst gap %4lld ms  p99 gap %3lld ms  gaps over 100 ms: %zu  peak RSS %ld MB", phase,
          msecs, beat.worst(), beat.percentile99(), beat.over(100), peakRssMb());
}

} // namespace

class AppScale : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    int m_files = 10000;

    // A few short sources, copied (not linked: each copy is its own file,
    // as a cache keyed by inode would see it) under numbered names.
    QString makeLibrary(int count)
    {
        const QString sources = m_dir.filePath(QStringLiteral("sources"));
        const QString library = m_dir.filePath(QStringLiteral("library"));
        if (!QDir().mkpath(sources) || !QDir().mkpath(library))
            return {};
        QStringList made{fixtures::makeWav(sources, QStringLiteral("plain.wav"), 0.5)};
        for (int i = 0; i < 20; ++i) {
            const QString cover = QDir(sources).filePath(QStringLiteral("cover%1.jpg").arg(i));
            const QString mp3 = QDir(sources).filePath(QStringLiteral("covered%1.mp3").arg(i));
            // 1000 x 1000, as shops sell them: 4 MB once decoded.
            if (!fixtures::run(QStringLiteral("ffmpeg"),
                               {"-v", "error", "-y", "-f", "lavfi", "-i",
                                QStringLiteral("gradients=s=1000x1000:seed=%1:duration=1").arg(i + 1), "-frames:v",
                                "1", cover}))
                return {};
            if (!fixtures::run(QStringLiteral("ffmpeg"),
                               {"-v", "error", "-y", "-i", made.first(), "-i", cover, "-map", "0:a", "-map", "1:v",
                                "-c:a", "libmp3lame", "-b:a", "128k", "-c:v", "copy", "-disposition:v",
                                "attached_pic", "-id3v2_version", "3", mp3}))
                return {};
            made << mp3;
        }
        for (int i = 0; i < count; ++i) {
            // Every third file has no cover; the others cycle through the twenty.
            const QString &source = i % 3 == 0 ? made.first() : made.at(1 + (i / 3) % 20);
            const QString name = QStringLiteral("/t%1.%2").arg(i, 5, 10, QLatin1Char('0')).arg(QFileInfo(source).suffix());
            if (!QFile::copy(source, library + name))
                return {};
        }
        return library;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        // Files are probed and measured in the worker, as the application
        // does (unless EVENLOUD_WORKER=none, to see what that costs).
        vx::useWorkerProcess();
        m_files = qEnvironmentVariableIntValue("EVENLOUD_APPSCALE_FILES");
        if (m_files <= 0)
            m_files = 10000;
    }

    void importSelectAnalyzeGain()
    {
        QElapsedTimer clock;
        clock.start();
        const QString library = makeLibrary(m_files);
        QVERIFY(!library.isEmpty());
        qInfo("%d files made in %lld ms; peak RSS before the window %ld MB", m_files, clock.elapsed(), peakRssMb());
        const QString out = m_dir.filePath(QStringLiteral("out"));
        QVERIFY(QDir().mkpath(out));

        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        c->window()->resize(900, 700);
        c->window()->show();

        {
            Heartbeat beat;
            clock.restart();
            bool done = false;
            QObject::connect(c.app.get(), &AppDelegate::importFinished, [&done] { done = true; });
            c->importAudioWithPaths({library}, false);
            QVERIFY(runUntil([&] { return done; }));
            report("import", clock.elapsed(), beat);
            QCOMPARE(c->audioGains()->count(), m_files);
            QVERIFY(beat.worst() < kDeadlockMsecs);
        }
        if (qEnvironmentVariable("EVENLOUD_APPSCALE_PHASES") == QLatin1String("import"))
            return;

        QAction *selectAll = c->window()->findChild<QAction *>(QStringLiteral("actionSelectAll"));
        QAction *analyze = c->window()->findChild<QAction *>(QStringLiteral("actionAnalyze"));
        QVERIFY(selectAll && analyze);
        {
            Heartbeat beat;
            clock.restart();
            selectAll->trigger();
            const qint64 took = clock.elapsed();
            // A few turns of the loop: the repaint and whatever was deferred.
            QVERIFY(runUntil([&] { return clock.elapsed() > took + 200; }));
            report("select", took, beat);
            QCOMPARE(c->selectedRows().size(), m_files);
        }
        {
            Heartbeat beat;
            clock.restart();
            analyze->trigger();
            QVERIFY(runUntil([&] { return !c->analyzing(); }));
            report("analyze", clock.elapsed(), beat);
            QVERIFY(beat.worst() < kDeadlockMsecs);
        }
        {
            Heartbeat beat;
            clock.restart();
            c->gainAudioAction();
            QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));
            // Each result is measured too, since its input was.
            QVERIFY(runUntil([&] { return c->btnGain()->text() == QStringLiteral("Gain") && !c->analyzing(); }));
            report("gain", clock.elapsed(), beat);
            int succeeded = 0;
            for (const VXAudioGainPtr &item : c->audioGains()->items())
                succeeded += item->retCode() == 0 ? 1 : 0;
            QCOMPARE(succeeded, m_files);
            QVERIFY(beat.worst() < kDeadlockMsecs);
        }
        {
            Heartbeat beat;
            clock.restart();
            c->cleanGains();
            report("clear", clock.elapsed(), beat);
            QCOMPARE(c->audioGains()->count(), 0);
        }
    }
};

int main(int argc, char **argv)
{
    // A phase over ten thousand files runs longer than QtTest's five minutes.
    if (!qEnvironmentVariableIsSet("QTEST_FUNCTION_TIMEOUT"))
        qputenv("QTEST_FUNCTION_TIMEOUT", "86400000");
    QApplication app(argc, argv);
    AppScale bench;
    return QTest::qExec(&bench, argc, argv);
}

#include "app-scale.moc"
