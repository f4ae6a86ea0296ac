// The batch's progress in the bottom bar: files ended of all, the share of
// the audio done, and a time left that shows only once it means something.
#include "AppTestUtil.h"

#include "app/RQBatchController.h"
#include "app/RQBatchEta.h"
#include "views/RQBatchProgressView.h"

#include <QPushButton>
#include <QSignalSpy>

using namespace apptest;

class TestAppBatch : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QStringList m_files;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        for (int i = 0; i < 3; ++i) {
            m_files << makeWav(m_dir.path(), QStringLiteral("b%1.wav").arg(i), 1.0 + i);
            QVERIFY(!m_files.last().isEmpty());
        }
    }

    // Nothing while the batch warms up; then the audio left over the
    // smoothed rate. A change of pace moves the estimate gradually, a stall
    // makes it grow, and work that joins lengthens it.
    void estimateFollowsTheRate()
    {
        RQBatchEta eta;
        eta.start(0, 1000.0);
        double done = 0;
        for (qint64 t = 1; t <= 20; ++t) {
            done += 10.0;
            eta.sample(t * 1000, done);
            if (t * 1000 < RQBatchEta::kWarmUpMsecs)
                QVERIFY(eta.secondsLeft() < 0);
        }
        QVERIFY(qAbs(eta.secondsLeft() - 80.0) < 0.5);

        done += 5.0;
        eta.sample(21000, done);
        QVERIFY(eta.secondsLeft() > 795.0 / 10.0 && eta.secondsLeft() < 795.0 / 5.0);
        for (qint64 t = 22; t <= 120; ++t) {
            done += 5.0;
            eta.sample(t * 1000, done);
        }
        QVERIFY(qAbs(eta.secondsLeft() - (1000.0 - done) / 5.0) < 1.0);

        const double before = eta.secondsLeft();
        eta.sample(130000, done);
        QVERIFY(eta.secondsLeft() > before);
        eta.addWork(500.0);
        QVERIFY(eta.secondsLeft() > before + 500.0 / 5.0);

        // Past the warm-up time, but with too little of a large batch done.
        RQBatchEta large;
        large.start(0, 100000.0);
        for (qint64 t = 1; t <= 10; ++t)
            large.sample(t * 1000, 10.0 * t);
        QVERIFY(large.secondsLeft() < 0);
    }

    void timeLeftReadsRoundly()
    {
        const QList<std::pair<double, QString>> cases{
            {-1, {}},
            {0, QStringLiteral("about 5 s left")},
            {42, QStringLiteral("about 45 s left")},
            {59, QStringLiteral("about 1 min left")},
            {150, QStringLiteral("about 3 min left")},
            {3600 + 5 * 60, QStringLiteral("about 1 h 05 min left")},
            {26 * 3600, QStringLiteral("about 26 h 00 min left")},
        };
        for (const auto &[seconds, text] : cases)
            QCOMPARE(RQBatchProgressView::timeLeftText(seconds), text);
    }

    // The bar shows with the batch's first files, takes those that join
    // while it runs, only ever moves forward, and goes when the batch ends.
    void bottomBarFollowsTheBatch()
    {
        struct Seen {
            int done, total;
            double fraction;
            bool shown;
        };
        QList<Seen> seen;
        const QString out = m_dir.filePath(QStringLiteral("out"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QVERIFY(c.import(m_files));
        auto *bar = c->window()->findChild<RQBatchProgressView *>();
        QVERIFY(bar && bar->isHidden());
        RQBatchController *batch = c->batchController();
        connect(batch, &RQBatchController::progressChanged, batch, [&] {
            seen.append({batch->filesDone(), batch->filesTotal(), batch->fraction(), !bar->isHidden()});
        });
        c.select({0, 1});
        c->gainAudioAction();
        QVERIFY(!bar->isHidden());
        QCOMPARE(bar->text(), QStringLiteral("0 of 2 files"));
        c.select({2});
        c->gainAudioAction();
        QCOMPARE(batch->filesTotal(), 3);
        QCOMPARE(bar->text(), QStringLiteral("0 of 3 files"));

        QVERIFY(waitFor([&] { return !batch->batchRunning(); }));
        QVERIFY(bar->isHidden());
        for (const VXAudioGainPtr &item : c->audioGains()->items())
            QCOMPARE(item->retCode(), qint64(0));
        QVERIFY(seen.size() >= 3);
        const Seen last = seen.takeLast();
        QVERIFY(!last.shown && last.total == 0);
        for (qsizetype i = 0; i < seen.size(); ++i) {
            QVERIFY(seen[i].shown && seen[i].done <= seen[i].total);
            if (i > 0 && seen[i].total == seen[i - 1].total) {
                QVERIFY(seen[i].done >= seen[i - 1].done);
                QVERIFY(seen[i].fraction >= seen[i - 1].fraction);
            }
        }
    }

    // A press over many files starts their jobs over several turns; until
    // a file's turn comes it belongs to the batch: Clear spares it, and
    // Cancel drops it so that it never starts.
    void filesWaitingToStartCanBeCancelled()
    {
        const QString out = m_dir.filePath(QStringLiteral("out-many"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QList<VXAudioGainPtr> items;
        for (int i = 0; i < RQBatchController::kStartsPerTurn + 10; ++i) {
            VXError error;
            items << VXAudioGain::initWithFile(m_files[i % m_files.size()], QString(), &error);
            QVERIFY(items.last());
        }
        c->audioGains()->setAudioGains(items);
        c->gainAudioAction();
        RQBatchController *batch = c->batchController();
        QCOMPARE(batch->filesTotal(), int(items.size()));
        QVERIFY(items.first()->isRunning() && !batch->isPending(items.first().get()));
        QVERIFY(!items.last()->isRunning() && batch->isPending(items.last().get()));

        c->cleanGains();
        QCOMPARE(c->audioGains()->count(), items.size());
        c->cancelSelectedJobs();
        QVERIFY(waitFor([&] { return !batch->batchRunning(); }));
        for (const VXAudioGainPtr &item : std::as_const(items))
            QVERIFY(!item->isRunning());
        QCOMPARE(items.last()->state(), 0);
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));
    }
};

QTEST_MAIN(TestAppBatch)
#include "tst_appbatch.moc"
