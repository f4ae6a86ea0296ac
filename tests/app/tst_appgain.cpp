// The Gain/Cancel button: which items start, where their results go, the
// button's face, cancel, the close guard while gaining, and quitting with
// jobs under way, the remembered peak settings, a failure's reason on the
// row. Real jobs on real files.
#include "AppTestUtil.h"

#include "app/RQAppSettings.h"
#include "app/RQBatchJournal.h"
#include "app/RQAudioGainRows.h"
#include "app/RQReportExport.h"
#include "app/RQSettingsController.h"
#include "engine/VXJournal.h"
#include "engine/VXMeasureCache.h"
#include "engine/codec/VXLog.h"
#include "views/RQLoudnessView.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QAction>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QHelpEvent>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QToolTip>

using namespace apptest;

namespace {
bool allEnded(const AppDelegate &app)
{
    for (const VXAudioGainPtr &item : app.audioGains()->items()) {
        if (item->isRunning())
            return false;
    }
    return true;
}
} // namespace

class TestAppGain : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QStringList m_short;  // three short files at different levels
    QStringList m_long;   // two files long enough to cancel mid-pass

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        const QString in = m_dir.filePath(QStringLiteral("in"));
        QVERIFY(QDir().mkpath(in));
        const QList<double> gains{-12.0, 0.0, 4.0};
        for (int i = 0; i < 3; ++i) {
            m_short << makeWav(in, QStringLiteral("s%1.wav").arg(i), 3.0, gains[i]);
            QVERIFY(!m_short.last().isEmpty());
        }
        for (int i = 0; i < 2; ++i) {
            m_long << makeWav(in, QStringLiteral("long%1.wav").arg(i), 90.0);
            QVERIFY(!m_long.last().isEmpty());
        }
    }

    // Import three files, choose the folder when Gain asks for it, wait:
    // the results sit in the folder at the default target.
    void gainAsksForFolderThenNormalises()
    {
        QSettings().clear();
        const QString out = m_dir.filePath(QStringLiteral("out"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        QVERIFY(c.import(m_short));
        QVERIFY(c->btnGain()->isEnabled());

        // No folder, not replacing: started directly, nothing starts and the
        // log says why; from the button, the folder dialog comes first.
        QStringList log;
        const VXLogSink previous = VXSetLogSink([&log](const QString &line) { log << line; });
        c->gainAudios();
        VXSetLogSink(previous);
        QCOMPARE(log, QStringList{QStringLiteral("Please select out folder while not replace the original file.")});
        c->btnGain()->click();
        auto *dialog = qobject_cast<QFileDialog *>(c->currentDialog());
        QVERIFY(dialog);
        QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
        QCOMPARE(dialog->windowModality(), Qt::WindowModal);
        dialog->reject();
        QTest::qWait(50);
        for (const VXAudioGainPtr &item : c->audioGains()->items())
            QCOMPARE(item->state(), 0);

        c->btnGain()->click();
        QVERIFY(c->currentDialog());
        c->currentDialog()->reject();
        c->folderSheetDidEnd(QDialog::Accepted, out, true);
        // The batch starts after the dialog's end, not inside it.
        QCOMPARE(c->audioGains()->at(0)->state(), 0);
        QVERIFY(waitFor([&] { return c->audioGains()->at(0)->state() != 0; }));
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));
        QCOMPARE(c->batchController()->face(), RQBatchController::CancelFace);
        for (const VXAudioGainPtr &item : c->audioGains()->items()) {
            QCOMPARE(item->outFolder(), out);
            QVERIFY(!item->replaceOriginalFile());
        }
        // Closing is refused while gaining, through the window's own close too.
        QVERIFY(!c->windowShouldClose());
        QCOMPARE(c.alerts->last().message, QStringLiteral("It is gaining, please wait."));
        QCOMPARE(c.alerts->last().informative,
                 QStringLiteral("Can't close this window while is gaining. If you want to close, please cancel gain first."));
        c->window()->show();
        QVERIFY(!c->window()->close());
        QVERIFY(c->window()->isVisible());

        QVERIFY(waitFor([&] { return allEnded(*c.app); }));
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));
        QCOMPARE(c->batchController()->face(), RQBatchController::GainFace);
        for (const VXAudioGainPtr &item : c->audioGains()->items()) {
            QCOMPARE(item->state(), 3);
            QCOMPARE(item->retCode(), 0);
            const fixtures::Loudness l = fixtures::measureLoudness(out + QLatin1Char('/') + item->inputFileName());
            QVERIFY2(l.ok, qPrintable(item->inputFileName()));
            QVERIFY2(qAbs(l.integrated - (-24.0)) <= 1.0, qPrintable(QString::number(l.integrated)));
        }

        // Finished items are not started again; the face stays.
        c->gainAudioAction();
        for (const VXAudioGainPtr &item : c->audioGains()->items())
            QCOMPARE(item->state(), 3);
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));
        QVERIFY(c->window()->close());
    }

    // Replacing the originals needs no folder and leaves the items' folder
    // value alone.
    void replaceStartsAtOnce()
    {
        QSettings().clear();
        const QString copy = m_dir.filePath(QStringLiteral("replace.wav"));
        QVERIFY(QFile::copy(m_short[0], copy));
        Controller c;
        QVERIFY(c.import({copy}));
        const QString folderBefore = c->audioGains()->at(0)->outFolder();
        c->chkReplaceOriginalFile()->setChecked(true);
        c->btnGain()->click();
        QVERIFY(!c->currentDialog());
        QVERIFY(c->audioGains()->at(0)->replaceOriginalFile());
        QCOMPARE(c->audioGains()->at(0)->outFolder(), folderBefore);
        QVERIFY(waitFor([&] { return allEnded(*c.app); }));
        QCOMPARE(c->audioGains()->at(0)->retCode(), 0);
        const fixtures::Loudness l = fixtures::measureLoudness(copy);
        QVERIFY(l.ok);
        QVERIFY2(qAbs(l.integrated - (-24.0)) <= 1.0, qPrintable(QString::number(l.integrated)));
    }

    // Cancel reaches the chosen running items only; the face follows the
    // chosen items; a cancelled item starts again; quitting ends the rest.
    void cancelChosenAndQuit()
    {
        const QString out = m_dir.filePath(QStringLiteral("out2"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QVERIFY(c.import(m_long));
        VXAudioGainList *list = c->audioGains();
        c->gainAudioAction();  // nothing selected: both start
        QVERIFY(list->at(0)->isRunning());
        QVERIFY(list->at(1)->isRunning());

        c.select({0});
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));
        c->btnGain()->click();
        QVERIFY(waitFor([&] { return !list->at(0)->isRunning(); }));
        QCOMPARE(list->at(0)->state(), 3);
        QCOMPARE(list->at(0)->retCode(), -2);
        QVERIFY(list->at(1)->isRunning());
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));  // although row 1 runs
        QVERIFY(!QFile::exists(out + QStringLiteral("/long0.wav")));

        c.select({1});
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));
        c.select({0});
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));
        c->btnGain()->click();  // the cancelled item is eligible again
        QVERIFY(list->at(0)->isRunning());
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));

        // Quit from the menu: never refused, every job ends.
        QVERIFY(c->applicationWillTerminate());
        for (const VXAudioGainPtr &item : list->items())
            QVERIFY(!QFile::exists(out + QLatin1Char('/') + item->inputFileName()) || item->retCode() == 0);
    }

    // The popup's settings outlive the controller and the settings object:
    // new rows get the last target chosen, and every item the batch starts
    // carries the peak, meter and skip settings.
    void popupSettingsAreRememberedAndReachTheItems()
    {
        QSettings().clear();
        RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
        const float podcast = *VXLoudnessScale::positionForLufs(-16.0);
        {
            Controller c;
            QCOMPARE(popup->truePeakCeiling(), -2.0f);  // nothing stored yet
            QVERIFY(!popup->limitPeaks());
            popup->spnTruePeakCeiling()->setValue(-4.5);
            popup->chkLimitPeaks()->click();
            popup->chkDualMono()->click();
            c->window()->findChild<QAction *>(QStringLiteral("actionMeasureWithLoudnorm"))->trigger();
            popup->spnSkipWithin()->setValue(0.3);
            popup->chkSkipWithin()->click();
            // Chosen with no row under it: only remembered.
            popup->spnTargetLufs()->setValue(-16.0);
        }
        // A new process starts from the popup's defaults.
        popup->setTruePeakCeiling(-2.0f);
        popup->setLimitPeaks(false);
        popup->setDualMono(false);
        popup->setSkipWithin(NAN);
        popup->setTargetLoudness(VXAudioGain::kDefaultTargetLoudness);
        const VXJobSettings stored = VXJobSettings::load(QSettings());
        QCOMPARE(stored.truePeakCeiling, -4.5f);
        QVERIFY(stored.limitPeaks);
        QCOMPARE(stored.targetLoudness, podcast);

        const QString out = m_dir.filePath(QStringLiteral("out-peaks"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        QCOMPARE(popup->spnTruePeakCeiling()->value(), -4.5);
        QVERIFY(popup->chkLimitPeaks()->isChecked());
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QVERIFY(c.import({m_short[0], m_short[2]}));
        QVERIFY(popup->chkDualMono()->isChecked());
        QVERIFY(c->window()->findChild<QAction *>(QStringLiteral("actionMeasureWithLoudnorm"))->isChecked());
        for (const VXAudioGainPtr &item : c->audioGains()->items())
            QCOMPARE(item->targetLoudness(), podcast);
        c->gainAudioAction();
        for (const VXAudioGainPtr &item : c->audioGains()->items()) {
            const VXJobSettings settings = item->jobSettings();
            QCOMPARE(settings.truePeakCeiling, -4.5f);
            QVERIFY(settings.limitPeaks);
            QVERIFY(settings.dualMono);
            QVERIFY(settings.measureWithLoudnorm);
            QCOMPARE(settings.skipWithin, 0.3);
        }
        QVERIFY(waitFor([&] { return allEnded(*c.app); }));

        popup->setDualMono(false);
        popup->setSkipWithin(NAN);
        c->window()->findChild<QAction *>(QStringLiteral("actionMeasureWithLoudnorm"))->setChecked(false);
    }

    // The settings are one value: loaded as a unit (a ceiling the engine
    // would refuse and a position off the scale replaced by defaults),
    // edited from the popup, the menus or in code, stored whole at each
    // edit, refused whole when out of range; each press of Gain hands its
    // items a copy as it is then.
    void settingsAreOneValueFromStoreToItems()
    {
        QSettings().clear();
        QSettings().setValue(QStringLiteral("kRQTruePeakCeiling"), 3.0);
        QSettings().setValue(QStringLiteral("kRQTargetLoudness"), -16.0);
        QSettings().setValue(QStringLiteral("kRQSkipWithin"), 1.5);
        RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
        const QString out = m_dir.filePath(QStringLiteral("out-settings"));
        QVERIFY(QDir().mkpath(out));
        Controller c;
        RQSettingsController *settings = c->settingsController();
        QCOMPARE(settings->settings().truePeakCeiling, -2.0f);
        QCOMPARE(settings->settings().targetLoudness, VXAudioGain::kDefaultTargetLoudness);
        QCOMPARE(settings->settings().skipWithin, 1.5);
        QCOMPARE(popup->truePeakCeiling(), -2.0f);
        QVERIFY(popup->chkSkipWithin()->isChecked());
        QCOMPARE(popup->spnSkipWithin()->value(), 1.5);

        QSignalSpy changed(settings, &RQSettingsController::settingsChanged);
        popup->spnTruePeakCeiling()->setValue(-1.0);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(settings->settings().truePeakCeiling, -1.0f);
        QCOMPARE(VXJobSettings::load(QSettings()), settings->settings());
        QAction *albums = c->window()->findChild<QAction *>(QStringLiteral("actionTreatAsAlbums"));
        VXJobSettings edited = settings->settings();
        edited.dualMono = true;
        edited.treatAsAlbums = true;
        edited.preserveModificationTime = true;
        QVERIFY(settings->setSettings(edited));
        QCOMPARE(changed.count(), 2);
        QVERIFY(popup->chkDualMono()->isChecked());
        QVERIFY(albums->isChecked());
        QCOMPARE(VXJobSettings::load(QSettings()), edited);
        albums->trigger();
        edited.treatAsAlbums = false;
        QCOMPARE(settings->settings(), edited);
        VXJobSettings refused = edited;
        refused.limitPeaks = true;
        refused.truePeakCeiling = 1.0f;
        QVERIFY(!settings->setSettings(refused));
        QCOMPARE(settings->settings(), edited);
        QCOMPARE(VXJobSettings::load(QSettings()), edited);

        // Into a folder: no original whose time could be kept.
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QVERIFY(c.import({m_short[1]}));
        c->gainAudioAction();
        const VXAudioGainPtr item = c->audioGains()->at(0);
        VXJobSettings handed = edited;
        handed.preserveModificationTime = false;
        QCOMPARE(item->jobSettings(), handed);
        popup->spnTruePeakCeiling()->setValue(-5.0);
        QCOMPARE(item->jobSettings(), handed);
        QVERIFY(waitFor([&] { return allEnded(*c.app); }));
        settings->setSettings(VXJobSettings());
        QVERIFY(!popup->chkDualMono()->isChecked());
    }

    // Analyze measures the selected rows only, writes nothing anywhere, and
    // the figures reach the row's tooltip, its description and the picture;
    // after a run the result's curve joins the input's.
    void analyzeWritesNothingAndFillsTheRows()
    {
        QSettings().clear();
        // Earlier tests measured these files, and once they are a few
        // seconds old their figures would show at import: here only what
        // Analyze measures may.
        VXMeasureCache::configure({VXMeasureCache::Location::Off, {}});
        const auto keepAgain = qScopeGuard([] { VXMeasureCache::configure({}); });
        const QString out = m_dir.filePath(QStringLiteral("out-analyze"));
        QVERIFY(QDir().mkpath(out));
        const QDateTime before = QFileInfo(m_short[0]).lastModified();
        Controller c;
        c->folderSheetDidEnd(QDialog::Accepted, out, false);
        QVERIFY(c.import({m_short[0], m_short[1]}));
        RQAudioGainRows *rows = c->rows();
        c.select({1});
        QAction *analyze = c->window()->findChild<QAction *>(QStringLiteral("actionAnalyze"));
        QCOMPARE(analyze->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_I));
        analyze->trigger();
        QVERIFY(c->analyzing());
        QVERIFY(waitFor([&] { return !c->analyzing(); }));
        QVERIFY(!rows->measured(rows->at(0).get()));
        const RQAudioGainRows::Measured *m = rows->measured(rows->at(1).get());
        QVERIFY(m && m->input.measured() && !m->input.shortTerm.empty());
        QVERIFY(!m->output.measured());
        const QString tip = rows->index(1).data(Qt::ToolTipRole).toString();
        QVERIFY2(tip.contains(QStringLiteral("%1 LUFS").arg(m->input.integrated, 0, 'f', 1)), qPrintable(tip));
        QVERIFY(rows->index(1).data(Qt::AccessibleDescriptionRole).toString().contains(tip.section(QLatin1Char(','), 0, 0)));
        QCOMPARE(c->window()->findChild<RQLoudnessView *>()->picture().input.integrated, m->input.integrated);

        // None selected: every row; still nothing written, nothing changed.
        c.select({});
        analyze->trigger();
        QVERIFY(waitFor([&] { return !c->analyzing(); }));
        QVERIFY(rows->measured(rows->at(0).get()));
        QVERIFY(QDir(out).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
        QCOMPARE(QFileInfo(m_short[0]).lastModified(), before);
        QCOMPARE(rows->at(0)->state(), 0);

        c.select({1});
        c->gainAudioAction();
        QVERIFY(waitFor([&] { return allEnded(*c.app) && !c->analyzing(); }));
        QCOMPARE(rows->at(1)->retCode(), qint64(0));
        m = rows->measured(rows->at(1).get());
        QVERIFY(m->output.measured() && !m->output.shortTerm.empty());
        QVERIFY(qAbs(m->output.integrated - rows->at(1)->loudnormValue()) < 1.0);
        QCOMPARE(c->window()->findChild<RQLoudnessView *>()->picture().output.integrated, m->output.integrated);

        // File > Export Report: both rows, with the job's own figures for the result.
        QAction *exportReport = c->window()->findChild<QAction *>(QStringLiteral("actionExportReport"));
        QVERIFY(exportReport->isEnabled());
        QSignalSpy written(c->reportExport(), &RQReportExport::finished);
        c->exportReportTo(m_dir.filePath(QStringLiteral("report.csv")));
        QVERIFY(waitFor([&] { return written.count() == 1; }));
        QCOMPARE(written.at(0).at(1).toString(), QString());
        const QStringList lines = QString::fromUtf8(fixtures::readFile(m_dir.filePath(QStringLiteral("report.csv"))))
                                      .split(QStringLiteral("\r\n"), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 3);
        const QStringList header = lines[0].split(QLatin1Char(','));
        const QStringList ran = lines[2].split(QLatin1Char(','));
        auto at = [&](const QStringList &row, const char *column) { return row.value(header.indexOf(QLatin1String(column))); };
        QCOMPARE(at(ran, "file"), m_short[1]);
        QCOMPARE(at(ran, "result"), QStringLiteral("ok"));
        QCOMPARE(at(ran, "output_i"), QString::number(rows->at(1)->gainResult().outputI, 'f', 2));
        QCOMPARE(at(ran, "judged"), QStringLiteral("output"));
        QVERIFY(!at(ran, "output_max_short_term").isEmpty());
        QCOMPARE(at(lines[1].split(QLatin1Char(',')), "result"), QStringLiteral("analyzed"));
        c->cleanGains();
        QVERIFY(!exportReport->isEnabled());
    }

    // A row whose job failed tells why when the pointer rests on its state
    // image.
    void failedRowTellsItsReasonOnHover()
    {
        QSettings().clear();
        Controller c;
        c->window()->show();
        QVERIFY(QTest::qWaitForWindowExposed(c->window()));
        const QString gone = m_dir.filePath(QStringLiteral("never-made"));
        c->folderSheetDidEnd(QDialog::Accepted, gone, false);
        QVERIFY(c.import({m_short[1]}));
        c->gainAudioAction();
        QVERIFY(waitFor([&] { return allEnded(*c.app); }));
        const VXAudioGainPtr item = c->audioGains()->at(0);
        QCOMPARE(item->retCode(), -1);
        const QString reason = item->gainResult().reason;
        QVERIFY2(reason.contains(gone), qPrintable(reason));

        QListView *list = c->tableView();
        const QRect state = RQTableCellView::layout(list->visualRect(c->audioGains()->index(0))).state;
        QHelpEvent hover(QEvent::ToolTip, state.center(), list->viewport()->mapToGlobal(state.center()));
        QApplication::sendEvent(list->viewport(), &hover);
        QTRY_VERIFY(QToolTip::isVisible());
        QCOMPARE(QToolTip::text(), reason);
        QToolTip::hideText();
        c->window()->hide();
    }
    // From the Edit menu, both remembered: an album (untagged files of one
    // folder) moves by one gain, so its tracks keep their difference; tags
    // only writes ReplayGain tags in place and leaves the audio as it was.
    void albumsAndTagsOnly()
    {
        QSettings().clear();
        const QString album = m_dir.filePath(QStringLiteral("album"));
        const QString out = m_dir.filePath(QStringLiteral("out-album"));
        QVERIFY(QDir().mkpath(album) && QDir().mkpath(out));
        const QStringList tracks{album + QStringLiteral("/a.wav"), album + QStringLiteral("/b.wav")};
        QVERIFY(QFile::copy(m_short[0], tracks[0]) && QFile::copy(m_short[2], tracks[1]));
        {
            Controller c;
            c->window()->findChild<QAction *>(QStringLiteral("actionTreatAsAlbums"))->setChecked(true);
            c->folderSheetDidEnd(QDialog::Accepted, out, false);
            QVERIFY(c.import(tracks));
            c->gainAudioAction();
            QVERIFY(waitFor([&] { return allEnded(*c.app); }));
            double before[2], after[2];
            for (int i = 0; i < 2; ++i) {
                const VXAudioGainPtr item = c->audioGains()->at(i);
                QCOMPARE(item->retCode(), 0);
                QVERIFY2(item->outcomeText().contains(QStringLiteral("album")), qPrintable(item->outcomeText()));
                before[i] = fixtures::measureLoudness(item->inputFile()).integrated;
                after[i] = fixtures::measureLoudness(item->outPathFile()).integrated;
            }
            QVERIFY(qAbs((after[1] - after[0]) - (before[1] - before[0])) <= 0.1);
        }
        {
            Controller c;
            QAction *albums = c->window()->findChild<QAction *>(QStringLiteral("actionTreatAsAlbums"));
            QVERIFY(albums->isChecked());
            // A track cancelled while it may be measuring its album leaves that
            // to the other track, which ends as if nothing had happened.
            c->folderSheetDidEnd(QDialog::Accepted, out, false);
            QVERIFY(c.import(m_long));
            c->gainAudioAction();
            c->audioGains()->at(0)->cancelGain();
            QVERIFY(waitFor([&] { return allEnded(*c.app); }));
            QCOMPARE(c->audioGains()->at(0)->retCode(), -2);
            QCOMPARE(c->audioGains()->at(1)->retCode(), 0);
            QVERIFY(!c->audioGains()->at(1)->gainResult().album.isEmpty());
            albums->setChecked(false);
        }
        QSettings().remove(QLatin1String(RQAppSettings::kRQUserSelectedOutFolder));
        Controller c;
        QAction *tagsOnly = c->window()->findChild<QAction *>(QStringLiteral("actionTagsOnly"));
        tagsOnly->setChecked(true);
        // The lossless mode sits beside it, off until chosen.
        QAction *lossless = c->window()->findChild<QAction *>(QStringLiteral("actionLossless"));
        QVERIFY(lossless && lossless->isCheckable() && !lossless->isChecked());
        QCOMPARE(lossless->text(), QStringLiteral("Without re-encoding where the format allows"));
        const QString flac = fixtures::makeAudio(album, QStringLiteral("c.flac"), 3.0, {QStringLiteral("-c:a"), QStringLiteral("flac")});
        auto audioMd5 = [](const QString &path) {
            QString md5;
            fixtures::run(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
                          QStringLiteral("-map"), QStringLiteral("0:a"), QStringLiteral("-c"), QStringLiteral("copy"),
                          QStringLiteral("-f"), QStringLiteral("md5"), QStringLiteral("-")}, &md5);
            return md5;
        };
        const QString md5 = audioMd5(flac);
        QVERIFY(c.import({flac}));
        c->gainAudioAction();  // no folder chosen: no question either
        QVERIFY(!c->currentDialog());
        QVERIFY(waitFor([&] { return allEnded(*c.app); }));
        QCOMPARE(c->audioGains()->at(0)->retCode(), 0);
        QCOMPARE(audioMd5(flac), md5);
        QString tags;
        QVERIFY(fixtures::run(QStringLiteral("ffprobe"), {QStringLiteral("-v"), QStringLiteral("error"),
                              QStringLiteral("-show_entries"), QStringLiteral("format_tags"), flac}, &tags));
        const double written = c->audioGains()->at(0)->gainResult().tags.trackGainDb;
        QVERIFY2(tags.contains(QStringLiteral("REPLAYGAIN_TRACK_GAIN=%1 dB").arg(written, 0, 'f', 2)), qPrintable(tags));
        QVERIFY(c->audioGains()->at(0)->outcomeText().startsWith(QStringLiteral("tagged")));
    }

    // A batch whose program died (a crash, a kill) is offered back at the
    // next start: the files it had not done, each with its target; the
    // files it had done, and a batch still running elsewhere, are not.
    void anInterruptedBatchIsOfferedBack()
    {
        QSettings().clear();
        const QString state = m_dir.filePath(QStringLiteral("state"));
        qputenv("XDG_STATE_HOME", QFile::encodeName(state));
        QList<VXAudioGainPtr> items;
        for (int i = 0; i < m_short.size(); ++i) {
            VXError error;
            items << VXAudioGain::initWithFile(m_short[i], QString(), &error);
            QVERIFY(items.last());
            items.last()->setTargetLoudness(float(40 + i));
        }
        std::shared_ptr<VXJournal> live = RQBatchJournal::begin({items[2]});
        {
            const std::shared_ptr<VXJournal> dead = RQBatchJournal::begin(items);
            QVERIFY(dead && live);
            dead->done(m_short[0], VXFileId::of(m_short[0]), QString(), QStringLiteral("skipped"));
        }  // its program is gone: the lock with it
        items.clear();

        Controller c;
        QMessageBox *box = nullptr;
        QVERIFY(waitFor([&] { return (box = c->window()->findChild<QMessageBox *>()) != nullptr; }));
        QVERIFY2(box->informativeText().startsWith(QStringLiteral("2 of 3 files")), qPrintable(box->informativeText()));
        QAbstractButton *add = nullptr;
        for (QAbstractButton *button : box->buttons())
            if (button->text() == QStringLiteral("Add to List"))
                add = button;
        QVERIFY(add);
        add->click();
        QVERIFY(waitFor([&] { return c->audioGains()->items().size() == 2 && allEnded(*c.app); }));
        QVERIFY(waitFor([&] { return c->audioGains()->at(1)->targetLoudness() == 42.0f; }));
        QCOMPARE(c->audioGains()->at(0)->inputFile(), m_short[1]);
        QCOMPARE(c->audioGains()->at(0)->targetLoudness(), 41.0f);
        // Taken over once; the live batch stays its program's.
        QVERIFY(RQBatchJournal::takeInterrupted().isEmpty());
        QVERIFY(QFile::exists(live->path()));
        RQBatchJournal::finish(std::move(live));
        QVERIFY(QDir(RQBatchJournal::folder()).entryList(QDir::Files).isEmpty());
    }
};

QTEST_MAIN(TestAppGain)
#include "tst_appgain.moc"
