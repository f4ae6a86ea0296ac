// The window at scale, driven offscreen as a user would: import 10,000 short
// files (a third without cover art, the rest with one of twenty full-size
// covers), select all, Analyze, Gain into a folder, clear. For each phase it
// prints the time, the event loop's worst and 99th-percentile gap (a 5 ms
// heartbeat), the GUI thread's CPU time within the gaps, and the peak RSS;
// only a deadlock-sized gap fails the run.
//
// EVENLOUD_APPSCALE_FILES sets the count (a quick look at the phases needs
// far fewer); EVENLOUD_APPSCALE_PHASES=import stops after the import, =presses
// after pressing Analyze and Gain over everything (what the presses cost);
// EVENLOUD_APPSCALE_LIBRARY keeps the files in that folder for later runs.
#include "tests/app/AppTestUtil.h"
#include "engine/codec/VXWorker.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QMetaEnum>
#include <QThread>
#include <QEventLoop>
#include <QPushButton>
#include <QTimer>
#include <algorithm>
#include <sys/resource.h>
#include <time.h>
#include <vector>

using namespace apptest;

namespace {

qint64 threadCpuMsecs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

qint64 percentile99(std::vector<qint64> values)
{
    if (values.empty())
        return 0;
    const size_t at = (values.size() * 99) / 100;
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[at];
}

// The time this thread has waited for a CPU while ready to run (the
// scheduler's run queue), from the kernel's per-thread statistics.
qint64 runQueueMsecs()
{
    QFile stat(QStringLiteral("/proc/thread-self/schedstat"));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = stat.readAll().split(' ');
    return fields.size() >= 2 ? fields[1].toLongLong() / 1000000 : 0;
}

// Times what the GUI thread delivers, to name the slowest per phase: the
// outermost deliveries (a timer, a hop, a whole repaint) and, inside them,
// the slowest single widget's paint.
class TimedApplication : public QApplication {
public:
    using QApplication::QApplication;
    struct Slowest {
        qint64 wall = -1;
        qint64 cpu = 0;
        QByteArray what;
    };

    bool notify(QObject *receiver, QEvent *event) override
    {
        if (QThread::currentThread() != thread())
            return QApplication::notify(receiver, event);
        const bool outermost = m_depth++ == 0;
        const QEvent::Type type = event->type();
        // Named before delivery: the receiver may not outlive it.
        const char *name = receiver->metaObject()->className();
        QElapsedTimer wall;
        wall.start();
        const qint64 cpu = threadCpuMsecs();
        const bool done = QApplication::notify(receiver, event);
        --m_depth;
        if (outermost && wall.elapsed() > 50)
            m_long[QByteArray(name) + ' ' + QMetaEnum::fromType<QEvent::Type>().valueToKey(type)] += wall.elapsed();
        Slowest &slot = outermost ? m_outer : m_paint;
        if ((outermost || type == QEvent::Paint) && wall.elapsed() > slot.wall) {
            slot.wall = wall.elapsed();
            slot.cpu = threadCpuMsecs() - cpu;
            slot.what = QByteArray(name) + ' ' + QMetaEnum::fromType<QEvent::Type>().valueToKey(type);
        }
        return done;
    }
    QByteArray takeSummary()
    {
        const QByteArray text = QStringLiteral("slowest delivery %1 ms (%2 ms CPU, %3); slowest paint %4 ms (%5 ms CPU, %6)")
                                    .arg(m_outer.wall).arg(m_outer.cpu).arg(QString::fromLatin1(m_outer.what))
                                    .arg(m_paint.wall).arg(m_paint.cpu).arg(QString::fromLatin1(m_paint.what))
                                    .toLatin1();
        QList<std::pair<qint64, QByteArray>> longest;
        for (auto it = m_long.cbegin(); it != m_long.cend(); ++it)
            longest.append({it.value(), it.key()});
        std::sort(longest.rbegin(), longest.rend());
        QByteArray tail;
        for (qsizetype i = 0; i < qMin<qsizetype>(3, longest.size()); ++i)
            tail += "; " + longest[i].second + " " + QByteArray::number(longest[i].first) + " ms";
        m_outer = m_paint = {};
        m_long.clear();
        return tail.isEmpty() ? text : text + "\n         deliveries over 50 ms, in all" + tail;
    }

private:
    int m_depth = 0;
    Slowest m_outer, m_paint;
    QHash<QByteArray, qint64> m_long;
};

// Every gap between two ticks of a 5 ms timer, while it runs, and the GUI
// thread's own CPU time within it. On a shared machine a gap can be the
// scheduler's (other programs ran); the CPU time is what this program spent.
class Heartbeat {
public:
    Heartbeat()
    {
        m_timer.setInterval(5);
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            const qint64 cpu = threadCpuMsecs();
            m_gaps.push_back(m_clock.restart());
            m_cpu.push_back(cpu - m_lastCpu);
            m_lastCpu = cpu;
        });
        m_gaps.reserve(1 << 16);
        m_cpu.reserve(1 << 16);
        m_lastCpu = threadCpuMsecs();
        m_runQueue = runQueueMsecs();
        static_cast<TimedApplication *>(qApp)->takeSummary();
        m_clock.start();
        m_timer.start();
    }
    qint64 worst() const { return m_gaps.empty() ? 0 : *std::max_element(m_gaps.begin(), m_gaps.end()); }
    qint64 worstCpu() const { return m_cpu.empty() ? 0 : *std::max_element(m_cpu.begin(), m_cpu.end()); }
    qint64 p99() const { return percentile99(m_gaps); }
    qint64 runQueue() const { return runQueueMsecs() - m_runQueue; }
    qint64 p99Cpu() const { return percentile99(m_cpu); }
    size_t over(qint64 msecs) const
    {
        return size_t(std::count_if(m_gaps.begin(), m_gaps.end(), [msecs](qint64 g) { return g > msecs; }));
    }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    std::vector<qint64> m_gaps;
    std::vector<qint64> m_cpu;
    qint64 m_lastCpu = 0;
    qint64 m_runQueue = 0;
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
    // Seldom: a timer of its own that woke the thread each millisecond would
    // be counted against the window on a loaded machine.
    check.start(50);
    QTimer::singleShot(msecs, &loop, &QEventLoop::quit);
    loop.exec();
    return pred();
}

void report(const char *phase, qint64 msecs, const Heartbeat &beat)
{
    qInfo("%-8s %7lld ms  gaps: worst %4lld ms, p99 %3lld ms, %zu over 100 ms;  GUI CPU per gap: worst %4lld ms, "
          "p99 %3lld ms;  GUI thread ready but not run %lld ms;  peak RSS %ld MB",
          phase, msecs, beat.worst(), beat.p99(), beat.over(100), beat.worstCpu(), beat.p99Cpu(), beat.runQueue(),
          peakRssMb());
    qInfo("%-8s %s", phase, static_cast<TimedApplication *>(qApp)->takeSummary().constData());
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
        // A library kept from an earlier run is taken as it is.
        const QString kept = qEnvironmentVariable("EVENLOUD_APPSCALE_LIBRARY");
        const QDir root(kept.isEmpty() ? m_dir.path() : kept);
        const QString sources = root.filePath(QStringLiteral("sources"));
        const QString library = root.filePath(QStringLiteral("library-%1").arg(count));
        if (!kept.isEmpty() && QDir(library).count() == uint(count) + 2)
            return library;
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
            QFile::remove(library + name);
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
        // Its first paint is the window's, not the import's.
        QVERIFY(QTest::qWaitForWindowExposed(c->window()));
        QTest::qWait(200);

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
        const QString phases = qEnvironmentVariable("EVENLOUD_APPSCALE_PHASES");
        if (phases == QLatin1String("import"))
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
            qInfo("analyze  the press itself: %lld ms", clock.elapsed());
            if (phases == QLatin1String("presses")) {
                // Both presses, then the window goes with all it started.
                clock.restart();
                c->gainAudioAction();
                qInfo("gain     the press itself: %lld ms", clock.elapsed());
                QVERIFY(runUntil([&] { return clock.elapsed() > 2000; }));
                report("presses", clock.elapsed(), beat);
                return;
            }
            QVERIFY(runUntil([&] { return !c->analyzing(); }));
            report("analyze", clock.elapsed(), beat);
            QVERIFY(beat.worst() < kDeadlockMsecs);
        }
        {
            Heartbeat beat;
            clock.restart();
            c->gainAudioAction();
            qInfo("gain     the press itself: %lld ms", clock.elapsed());
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
    TimedApplication app(argc, argv);
    AppScale bench;
    return QTest::qExec(&bench, argc, argv);
}

#include "app-scale.moc"
