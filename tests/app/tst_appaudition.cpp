// Audition as the window's user meets it on a machine without sound: the
// first press of P says why it cannot play, once, and playing is turned
// off; nothing waits on a device that is not there.
#include "AppTestUtil.h"

#include "app/RQAudioGainRows.h"
#include "app/RQAuditionController.h"
#include "views/RQLoudnessView.h"

#include <QAction>
#include <QAudioDevice>
#include <QMainWindow>

using namespace apptest;

class TestAppAudition : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QString m_file;

    static void selectFirst(Controller &c)
    {
        c.select({0});
        c->tableView()->setCurrentIndex(c->audioGains()->index(0));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        m_file = makeWav(m_dir.path(), QStringLiteral("tone.wav"), 2.0);
        QVERIFY(!m_file.isEmpty());
    }

    void playIsRefusedOnceWithoutAnOutput()
    {
        Controller c;
        QVERIFY(c.import({m_file}));
        selectFirst(c);
        RQAuditionController *audition = c->auditionController();
        audition->setOutputProbe([] { return QAudioDevice(); });
        QVERIFY(!audition->available());
        QVERIFY(c.alerts->isEmpty());  // nothing is said before the user asks to play

        c->window()->show();
        QVERIFY(QTest::qWaitForWindowActive(c->window()));
        c->tableView()->setFocus();
        QTest::keyClick(c->tableView(), Qt::Key_P);
        QCOMPARE(c.alerts->size(), 1);
        QCOMPARE(c.alerts->first().message, QStringLiteral("Playing is off: there is no audio output"));
        QVERIFY(!c.alerts->first().informative.isEmpty());
        QVERIFY(!audition->playAction()->isEnabled());
        QVERIFY(!audition->playing());
        QVERIFY(!audition->item());

        // Said once: neither the key, a click in the picture, nor the
        // commands themselves say it again, and none of them plays.
        QTest::keyClick(c->tableView(), Qt::Key_P);
        QTest::keyClick(c->tableView(), Qt::Key_B);
        audition->togglePlay();
        audition->playFrom(c->audioGains()->at(0), 0.5);
        emit c->window()->findChild<RQLoudnessView *>()->seekRequested(1.0);
        QCOMPARE(c.alerts->size(), 1);
        QVERIFY(!audition->playing());
        QVERIFY(std::isnan(audition->position()));
        c->window()->hide();
    }

    // Whatever this machine has, asking for it neither waits nor fails; the
    // build machines have no sound card, and say so as above.
    void theSystemsOutputIsAskedWithoutWaiting()
    {
        Controller c;
        QVERIFY(c.import({m_file}));
        selectFirst(c);
        RQAuditionController *audition = c->auditionController();
        if (audition->available())
            QSKIP("this machine has an audio output");
        audition->togglePlay();
        QCOMPARE(c.alerts->size(), 1);
        QVERIFY(!audition->playing());
    }

    // Opt-in, where an audio output may sound: the row plays, its playhead
    // runs, B comes in once the row is measured, pausing holds the place, a
    // jump lands where asked, and the end stops it.
    void playsThroughTheSystemsOutput()
    {
        if (qgetenv("EVENLOUD_TEST_AUDIO_OUTPUT") != "1")
            QSKIP("EVENLOUD_TEST_AUDIO_OUTPUT=1 plays through this machine's audio output");
        Controller c;
        QVERIFY(c.import({m_file}));
        selectFirst(c);
        const VXAudioGainPtr item = c->audioGains()->at(0);
        RQAuditionController *audition = c->auditionController();
        QVERIFY(audition->available());
        audition->setResultSide(true);
        audition->togglePlay();
        QVERIFY(audition->playing());
        QVERIFY(waitFor([&] { return audition->position() > 0.3; }));
        QVERIFY(waitFor([&] { return c->rows()->measured(item.get()) != nullptr; }));

        audition->togglePlay();
        QVERIFY(!audition->playing());
        const double held = audition->position();
        QTest::qWait(200);
        QCOMPARE(audition->position(), held);
        audition->togglePlay();
        QVERIFY(audition->playing());

        audition->playFrom(item, 1.5);
        QVERIFY(audition->position() >= 1.4);
        QVERIFY(waitFor([&] { return !audition->playing(); }));
        QVERIFY(!audition->item());
        QVERIFY2(c.alerts->isEmpty(), qPrintable(c.alerts->value(0).message + c.alerts->value(0).informative));
    }

    void matchLoudnessIsOnUntilTurnedOff()
    {
        QSettings().clear();
        {
            Controller c;
            QVERIFY(c->auditionController()->matchLoudness());
            c->auditionController()->actions().at(3)->trigger();
            QVERIFY(!c->auditionController()->matchLoudness());
        }
        Controller again;
        QVERIFY(!again->auditionController()->matchLoudness());
        QVERIFY(!again->auditionController()->actions().at(3)->isChecked());
    }
};

QTEST_MAIN(TestAppAudition)
#include "tst_appaudition.moc"
