// Importing: drops, the open dialog's result, duplicates, files the codec
// refuses, cancel, and the window's close guard during an import.
#include "AppTestUtil.h"

#include "app/RQAudioGainRows.h"
#include "app/RQRecursiveViewCtrl.h"

#include <QCheckBox>
#include <QDateTime>
#include <QFileDialog>
#include <QLineEdit>
#include <QListView>
#include <QMenuBar>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>

using namespace apptest;

namespace {

std::unique_ptr<QMimeData> urlsOf(const QStringList &paths)
{
    auto data = std::make_unique<QMimeData>();
    QList<QUrl> urls;
    for (const QString &path : paths)
        urls << QUrl::fromLocalFile(path);
    data->setUrls(urls);
    return data;
}

} // namespace

class TestAppImport : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QString m_tree;  // tree/{a.wav, B.WAV, notes.txt, sub/c.wav, sub/deeper/d.wav}
    QString m_wav;

    QString path(const QString &rel) const { return m_dir.filePath(rel); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        m_tree = path(QStringLiteral("tree"));
        QVERIFY(QDir().mkpath(m_tree + QStringLiteral("/sub/deeper")));
        m_wav = makeWav(m_tree, QStringLiteral("a.wav"), 0.5);
        QVERIFY(!m_wav.isEmpty());
        for (const QString &copy : {QStringLiteral("B.WAV"), QStringLiteral("sub/c.wav"),
                                    QStringLiteral("sub/deeper/d.wav"), QStringLiteral("sub/.hidden.wav")})
            QVERIFY(QFile::copy(m_wav, m_tree + QLatin1Char('/') + copy));
        QVERIFY(fixtures::writeFile(m_tree + QStringLiteral("/notes.txt"), "not audio"));
    }

    void dropValidation_data()
    {
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("text file only") << QStringList{m_tree + "/notes.txt"} << false;
        QTest::newRow("text and upper-case audio") << QStringList{m_tree + "/notes.txt", m_tree + "/B.WAV"} << true;
        QTest::newRow("folder") << QStringList{m_tree + "/sub"} << true;
        QTest::newRow("missing file") << QStringList{m_tree + "/gone.wav"} << false;
        QTest::newRow("nothing") << QStringList{} << false;
    }

    void dropValidation()
    {
        QFETCH(QStringList, paths);
        QFETCH(bool, accepted);
        Controller c;
        const auto data = urlsOf(paths);
        QCOMPARE(c->dragOperationWithDragInfo(data.get()), accepted ? Qt::CopyAction : Qt::IgnoreAction);
        // Web addresses never count.
        QMimeData web;
        web.setUrls({QUrl(QStringLiteral("https://example.org/a.mp3"))});
        QCOMPARE(c->dragOperationWithDragInfo(&web), Qt::IgnoreAction);
    }

    // A dropped folder is walked one level deep, through the list's own
    // drop handling.
    void dropImportsFolderOneLevel()
    {
        Controller c;
        c->window()->show();
        QSignalSpy allowed(c.app.get(), &AppDelegate::allowedImportChanged);
        bool done = false;
        connect(c.app.get(), &AppDelegate::importFinished, this, [&done] { done = true; });
        const auto data = urlsOf({m_tree, m_tree + "/notes.txt"});
        QWidget *viewport = c->tableView()->viewport();
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(viewport, &enter);
        QVERIFY(enter.isAccepted());
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(viewport, &drop);
        QVERIFY(drop.isAccepted());
        QVERIFY(!c->allowedImport());
        QVERIFY(!c->allowGain());
        QVERIFY(waitFor([&] { return done; }));

        QCOMPARE(c.sortedNames(), (QStringList{QStringLiteral("B.WAV"), QStringLiteral("a.wav")}));
        QVERIFY(c->allowedImport());
        QVERIFY(c->allowGain());
        QCOMPARE(allowed.count(), 2);
        QCOMPARE(c->importingFileName(), c.names().last());
        QCOMPARE(c->importPI()->maximum(), 1);  // no longer busy
    }

    // A file measured before shows its figures and picture as it arrives,
    // with nothing analysed.
    void keptFiguresShowOnImport()
    {
        const QString wav = makeWav(m_dir.path(), QStringLiteral("kept.wav"), 2.0);
        QVERIFY(!wav.isEmpty());
        QFile settled(wav);  // an hour old: its figures are kept
        QVERIFY(settled.open(QIODevice::ReadOnly)
                && settled.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
        settled.close();
        const VXResult<VXMeasured> measured = VXMeasureWithCache(wav, VXMeasureTruePeak);
        QVERIFY(measured.ok());
        Controller c;
        QVERIFY(c.import({wav}));
        QCOMPARE(c->audioGains()->count(), 1);
        const RQAudioGainRows::Measured *row = c->rows()->measured(c->audioGains()->at(0).get());
        QVERIFY(row);
        QCOMPARE(row->input.integrated, measured->loudness.integrated);
        QCOMPARE(row->input.shortTerm.size(), size_t(20));
        QVERIFY(!c->analyzing());
    }

    void dialogResultHonoursRecursive()
    {
        RQRecursiveViewCtrl *recursive = RQRecursiveViewCtrl::shareRecursiveViewCtrl();
        {
            Controller c;
            recursive->setRecursive(true);
            c->selectAudioFiles();
            auto *dialog = qobject_cast<QFileDialog *>(c->currentDialog());
            QVERIFY(dialog);
            QVERIFY(dialog->isVisible());
            QCOMPARE(dialog->windowModality(), Qt::WindowModal);
            QVERIFY(!recursive->recursive());  // off each time the dialog opens
            dialog->reject();
            QVERIFY(c->allowedImport());
        }
        {
            Controller c;
            recursive->setRecursive(false);
            QVERIFY(c.importVia([&] { c->openPanelDidEnd(QDialog::Accepted, {m_tree + "/sub", m_tree + "/vanished.wav"}); }));
            // Hidden files count; the sub-folder is not entered.
            QCOMPARE(c.sortedNames(), (QStringList{QStringLiteral(".hidden.wav"), QStringLiteral("c.wav")}));
        }
        {
            // The dialog itself: a folder is returned, not opened, and the
            // accessory's check box asks for its sub-folders.
            Controller c;
            c->selectAudioFiles();
            auto *dialog = qobject_cast<QFileDialog *>(c->currentDialog());
            QVERIFY(dialog);
            auto *box = dialog->findChild<QCheckBox *>(QStringLiteral("chkRecursive"));
            QVERIFY(box);
            QVERIFY(!box->isChecked());
            box->click();
            QVERIFY(recursive->recursive());
            dialog->setDirectory(m_tree);
            dialog->selectFile(QStringLiteral("sub"));
            // As the "Open" button does.
            QVERIFY(c.importVia([&] { static_cast<QDialog *>(dialog)->accept(); }));
            QCOMPARE(c.sortedNames(), (QStringList{QStringLiteral(".hidden.wav"), QStringLiteral("c.wav"), QStringLiteral("d.wav")}));
        }
    }

    void duplicatesAreSkippedSilently()
    {
        Controller c;
        QVERIFY(c.import({m_wav}));
        QCOMPARE(c->importingFileName(), QStringLiteral("a.wav"));
        // Again, and as "A.WAV" in another spelling that names a real file
        // here: b.wav vs B.WAV.
        QVERIFY(QFile::copy(m_wav, m_tree + "/b.wav"));
        QVERIFY(c.import({m_tree + "/B.WAV"}));
        QVERIFY(c.import({m_wav, m_tree + "/b.wav"}));
        QCOMPARE(c->audioGains()->count(), 2);
        QVERIFY(c.alerts->isEmpty());
        QCOMPARE(c->importingFileName(), QStringLiteral("Import, please wait..."));
        QVERIFY(QFile::remove(m_tree + "/b.wav"));
    }

    // A file the codec refuses gives one alert and the walk goes on; the
    // window refuses to close while that import is under way.
    void refusedFileAlertsAndWalkGoesOn()
    {
        const QString folder = path(QStringLiteral("mixed"));
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(fixtures::writeFile(folder + "/broken.mp3", QByteArray(4096, 'x')));
        QVERIFY(QFile::copy(m_wav, folder + "/good1.wav"));
        QVERIFY(QFile::copy(m_wav, folder + "/good2.wav"));

        Controller c;
        bool closeAllowed = true;
        QList<Alert> closeAlerts;
        c->setAlertPresenter([&](const QString &m, const QString &i) {
            c.alerts->append({m, i});
            if (c.alerts->size() == 1) {
                // Still inside the import: a close must be refused.
                closeAllowed = c->windowShouldClose();
            }
        });
        QVERIFY(c.import({folder}));
        QCOMPARE(c->audioGains()->count(), 2);
        QVERIFY(!closeAllowed);
        QCOMPARE(c.alerts->size(), 2);
        QCOMPARE(c.alerts->at(0).message, QStringLiteral("Can not import audio file(%1)").arg(folder + "/broken.mp3"));
        QCOMPARE(c.alerts->at(0).informative, QStringLiteral("Failed to parser file with unknown reason."));
        QCOMPARE(c.alerts->at(1).message, QStringLiteral("It is importing, please wait."));
        QCOMPARE(c.alerts->at(1).informative,
                 QStringLiteral("Can't close this window while is importing. If you want to close, please cancel import first."));
        QVERIFY(c->importingFileName().startsWith(QStringLiteral("good")));
        QVERIFY(c->windowShouldClose());
    }

    void cancelStopsTheWalk()
    {
        const QString folder = path(QStringLiteral("many"));
        QVERIFY(QDir().mkpath(folder));
        for (int i = 0; i < 30; ++i)
            QVERIFY(QFile::link(m_wav, folder + QStringLiteral("/n%1.wav").arg(i)));
        Controller c;
        // Cancelled with the veil's button from inside the third file's
        // hop: the walk must stop before the next entry.
        auto *cancel = c->window()->findChild<QPushButton *>(QStringLiteral("btnCancelImport"));
        QVERIFY(cancel);
        connect(c->audioGains(), &VXAudioGainList::countChanged, this, [&c, cancel] {
            if (c->audioGains()->count() == 3)
                cancel->click();
        });
        QVERIFY(c.import({folder, m_wav}, true));
        QCOMPARE(c->audioGains()->count(), 3);
        QVERIFY(c->allowedImport());
        QCOMPARE(c->importPI()->maximum(), 1);
        QCOMPARE(c->importingFileName(), c->audioGains()->at(2)->inputFileName());
        // The next import starts afresh.
        QVERIFY(c.import({folder}));
        QCOMPARE(c->audioGains()->count(), 30);
    }

    // The picture is hidden while the list is empty and opens with its
    // first row; turned off, it stays off in the next session. Anywhere
    // below the menu, the picture included, a drop adds the files, as Qt's
    // window hands it to the nearest widget that takes drops.
    void pictureOpensWithRowsAndDropsLandAnywhere()
    {
        QSettings().clear();
        {
            Controller c;
            c->window()->show();
            QVERIFY(QTest::qWaitForWindowExposed(c->window()));
            auto *picture = c->window()->findChild<QWidget *>(QStringLiteral("loudnessView"));
            auto *toggle = c->window()->findChild<QAction *>(QStringLiteral("actionShowLoudness"));
            QVERIFY(picture->isHidden());
            QVERIFY(toggle->isChecked());
            QVERIFY(c.import({m_wav}));
            QVERIFY(!picture->isHidden());
            // Laid out on the next turn of the event loop.
            QVERIFY(waitFor([&] { return picture->isVisible() && picture->height() > 0; }));

            QWidget *central = c->window()->centralWidget();
            auto targetAt = [&](QWidget *over) {
                const QPoint at = over->mapTo(c->window(), over->rect().center());
                QWidget *w = c->window()->childAt(at);
                while (w && !w->acceptDrops() && !w->isWindow())
                    w = w->parentWidget();
                return w && w->acceptDrops() ? w : nullptr;
            };
            QCOMPARE(targetAt(picture), picture);
            QCOMPARE(targetAt(c->btnGain()), central);
            QCOMPARE(targetAt(c->txtFolder()), central);
            QCOMPARE(targetAt(c->window()->menuBar()), nullptr);
            int dropped = 1;
            for (QWidget *target : {picture, central}) {
                const QString copy = path(QStringLiteral("dropped%1.wav").arg(dropped));
                QVERIFY(QFile::copy(m_wav, copy));
                const auto data = urlsOf({copy});
                QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
                QApplication::sendEvent(target, &enter);
                QVERIFY(enter.isAccepted());
                bool done = false;
                auto finished = connect(c.app.get(), &AppDelegate::importFinished, this, [&done] { done = true; });
                QDropEvent drop(QPointF(5, 5), Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
                QApplication::sendEvent(target, &drop);
                QVERIFY(drop.isAccepted());
                QVERIFY(waitFor([&] { return done; }));
                disconnect(finished);
                QCOMPARE(c->audioGains()->count(), ++dropped);
            }

            toggle->trigger();
            QVERIFY(picture->isHidden());
        }
        Controller next;
        QVERIFY(next.import({m_wav}));
        auto *nextPicture = next->window()->findChild<QWidget *>(QStringLiteral("loudnessView"));
        QVERIFY(nextPicture->isHidden());
        QVERIFY(!next->window()->findChild<QAction *>(QStringLiteral("actionShowLoudness"))->isChecked());
    }
};

QTEST_MAIN(TestAppImport)
#include "tst_appimport.moc"
