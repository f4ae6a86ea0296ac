// The window stays responsive at scale: a 2,000-file import and 100 jobs
// over a list of 10,000 items. The event loop's worst gap is measured with
// a heartbeat timer and printed; only a deadlock-sized gap fails the run.
#include "tests/app/AppTestUtil.h"
#include "engine/codec/VXWorker.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QItemSelectionModel>
#include <QListView>
#include <QPushButton>
#include <QThread>
#include <QTimer>
#include <future>
#include <vector>

using namespace apptest;

namespace {

// Records the longest time between two ticks of a 5 ms timer.
class Heartbeat {
public:
    Heartbeat()
    {
        m_timer.setInterval(5);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            m_worst = qMax(m_worst, m_clock.restart());
        });
        m_clock.start();
        m_timer.start();
    }
    qint64 worstMsecs() const { return m_worst; }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_worst = 0;
};

constexpr qint64 kDeadlockMsecs = 2000;

// Runs a real event loop until pred holds, as the application's own would:
// QTest's waits sleep between rounds, and that would be counted as the app's.
bool runUntil(const std::function<bool()> &pred, int msecs = 600000)
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

} // namespace

class AppScale : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QString m_wav;

    QString linkFarm(const QString &name, int count)
    {
        const QString folder = m_dir.filePath(name);
        if (!QDir().mkpath(folder))
            return {};
        for (int i = 0; i < count; ++i) {
            if (!QFile::link(m_wav, folder + QStringLiteral("/t%1.wav").arg(i, 5, 10, QLatin1Char('0'))))
                return {};
        }
        return folder;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        // Files are probed in the worker, as the application does (unless
        // EVENLOUD_WORKER=none, to see what that costs).
        vx::useWorkerProcess();
        m_wav = makeWav(m_dir.path(), QStringLiteral("short.wav"), 0.5);
        QVERIFY(!m_wav.isEmpty());
    }

    void importOfTwoThousandFiles()
    {
        const QString folder = linkFarm(QStringLiteral("two-thousand"), 2000);
        QVERIFY(!folder.isEmpty());
        Controller c;
        c->window()->show();
        Heartbeat beat;
        QElapsedTimer clock;
        clock.start();
        bool done = false;
        QObject::connect(c.app.get(), &AppDelegate::importFinished, [&done] { done = true; });
        c->importAudioWithPaths({folder}, false);
        QVERIFY(runUntil([&] { return done; }));
        const qint64 took = clock.elapsed();
        QCOMPARE(c->audioGains()->count(), 2000);
        qInfo("import of 2000 files: %lld ms, worst event-loop gap %lld ms", took, beat.worstMsecs());
        QVERIFY(beat.worstMsecs() < kDeadlockMsecs);
    }

    void hundredJobsOverTenThousandItems()
    {
        const QString folder = linkFarm(QStringLiteral("ten-thousand"), 10000);
        QVERIFY(!folder.isEmpty());
        const QString out = m_dir.filePath(QStringLiteral("out"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        c->window()->show();

        QElapsedTimer clock;
        clock.start();
        // Probed four at a time, as an import would; only the list matters here.
        QList<VXAudioGainPtr> items(10000);
        QThread *main = QThread::currentThread();
        std::vector<std::future<void>> probes;
        for (int part = 0; part < 4; ++part) {
            probes.push_back(std::async(std::launch::async, [&, part] {
                for (int i = part; i < 10000; i += 4) {
                    VXError error;
                    items[i] = VXAudioGain::initWithFile(
                        folder + QStringLiteral("/t%1.wav").arg(i, 5, 10, QLatin1Char('0')), QString(), &error);
                    if (items[i])
                        items[i]->moveToThread(main);
                }
            }));
        }
        for (auto &probe : probes)
            probe.get();
        for (const VXAudioGainPtr &item : std::as_const(items))
            QVERIFY(item);
        const qint64 probing = clock.restart();
        for (const VXAudioGainPtr &item : std::as_const(items))
            c->audioGains()->insertObject(item, c->audioGains()->count());
        const qint64 inserting = clock.restart();
        qInfo("10000 items: probing %lld ms, appending one by one %lld ms", probing, inserting);

        // The last hundred rows, scrolled into view so their repaints count.
        QItemSelectionModel *selection = c->tableView()->selectionModel();
        selection->select(QItemSelection(c->audioGains()->index(9900), c->audioGains()->index(9999)),
                          QItemSelectionModel::Select);
        c->tableView()->scrollToBottom();

        Heartbeat beat;
        clock.restart();
        c->gainAudioAction();
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));
        QVERIFY(runUntil([&] { return c->btnGain()->text() == QStringLiteral("Gain"); }));
        const qint64 gaining = clock.elapsed();
        int succeeded = 0;
        for (int row = 9900; row < 10000; ++row)
            succeeded += c->audioGains()->at(row)->retCode() == 0 ? 1 : 0;
        QCOMPARE(succeeded, 100);
        QCOMPARE(c->audioGains()->at(0)->state(), 0);
        qInfo("100 jobs over 10000 items: %lld ms, worst event-loop gap %lld ms", gaining, beat.worstMsecs());
        QVERIFY(beat.worstMsecs() < kDeadlockMsecs);

        clock.restart();
        c->cleanGains();
        qInfo("clearing 10000 items: %lld ms", clock.elapsed());
        QCOMPARE(c->audioGains()->count(), 0);
    }
};

QTEST_MAIN(AppScale)
#include "app-scale.moc"
