// The list, its derived flags and commands, the popup's value, the output
// folder field and its memory, as the window's user meets them.
#include "AppTestUtil.h"

#include "views/RQPopupMenuWndCtrl.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QSignalSpy>
#include <QToolButton>

using namespace apptest;

class TestAppList : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QStringList m_files;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        QDir(m_dir.path()).mkpath(QStringLiteral("in"));
        for (int i = 0; i < 5; ++i) {
            m_files << makeWav(m_dir.filePath(QStringLiteral("in")), QStringLiteral("f%1.wav").arg(i), 0.5);
            QVERIFY(!m_files.last().isEmpty());
        }
    }

    void startsEmptyWithoutFolder()
    {
        QSettings().clear();
        Controller c;
        QVERIFY(c->txtFolder()->text().isEmpty());
        QCOMPARE(c->txtFolder()->placeholderText(), QStringLiteral("Please select a output folder"));
        QVERIFY(c->finalOutFolder().isNull());
        QVERIFY(c->btnActiveFolder()->isHidden());
        c->avtiveOutputPath();
        QVERIFY(c.revealed->isEmpty());

        QCOMPARE(c->btnGain()->text(), QStringLiteral("Gain"));
        QVERIFY(!c->chkReplaceOriginalFile()->isChecked());
        QVERIFY(!c->allowGain());
        QVERIFY(!c->btnGain()->isEnabled());
        QVERIFY(!c->canRemove());
        QVERIFY(c->selectedAudioGains().isEmpty());
        c->cleanGains();
        QCOMPARE(c->audioGains()->count(), 0);
        QVERIFY(c->windowShouldClose());
        QVERIFY(c.alerts->isEmpty());
    }

    // Inserts reach the view as row insertions at the end.
    void importsAppendRows()
    {
        Controller c;
        QSignalSpy inserted(c->audioGains(), &QAbstractItemModel::rowsInserted);
        QSignalSpy allowGain(c.app.get(), &AppDelegate::allowGainChanged);
        QVERIFY(c.import(m_files.mid(0, 3)));
        QCOMPARE(c->audioGains()->count(), 3);
        QCOMPARE(inserted.count(), 3);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(inserted.at(i).at(1).toInt(), i);
            QCOMPARE(inserted.at(i).at(2).toInt(), i);
        }
        QVERIFY(allowGain.count() >= 1);
        QVERIFY(c->allowGain());
        QVERIFY(c->btnGain()->isEnabled());
    }

    // Items' changes reach the view once per turn of the event loop: a few
    // rows each on its own, so that only they repaint; a long run of rows
    // as one range with every role that changed.
    void itemChangesAreGatheredPerTurn()
    {
        VXAudioGainList list;
        QList<VXAudioGainPtr> items;
        for (int i = 0; i < 3 * VXAudioGainList::kRowsApart; ++i) {
            VXError error;
            items << VXAudioGain::initWithFile(m_files[i % m_files.size()], QString(), &error);
            QVERIFY(items.last());
        }
        list.setAudioGains(items);
        QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
        const auto ranges = [&changed] {
            QList<std::pair<int, int>> found;
            for (const QList<QVariant> &args : std::as_const(changed))
                found.append({args.at(0).toModelIndex().row(), args.at(1).toModelIndex().row()});
            changed.clear();
            return found;
        };

        list.at(1)->setState(2);
        list.at(1)->setRetCode(40);
        list.at(2)->setTargetLoudness(50.0f);
        QCOMPARE(changed.count(), 0);
        QVERIFY(changed.wait());
        QCOMPARE(changed.at(0).at(2).value<QList<int>>().contains(VXAudioGainList::RetCodeRole), true);
        QCOMPARE(ranges(), (QList<std::pair<int, int>>{{1, 1}, {2, 2}}));
        QCOMPARE(list.data(list.index(2), VXAudioGainList::TargetTextRole).toString(), QStringLiteral("50.0"));

        // Every row but one in the middle: two long runs.
        const int gap = VXAudioGainList::kRowsApart + 2;
        for (int row = 0; row < list.count(); ++row) {
            if (row != gap)
                list.at(row)->setState(row % 2 ? 1 : 3);
        }
        list.at(0)->setRetCode(7);
        list.flushRowChanges();
        QCOMPARE(ranges(), (QList<std::pair<int, int>>{{0, gap - 1}, {gap + 1, list.count() - 1}}));

        // Rows are found again after the list changes shape: an insertion
        // at the top, then a removal.
        const VXAudioGainPtr last = list.at(2);
        list.insertObject(last, 0);
        QCOMPARE(list.indexOf(last.get()), 0);
        list.removeObjectFromAudioGainsAtIndex(0);
        QCOMPARE(list.indexOf(last.get()), 2);
        last->setRetCode(43);
        list.flushRowChanges();
        QCOMPARE(ranges(), (QList<std::pair<int, int>>{{2, 2}}));

        // A removed item no longer reaches the model, even with a change
        // made before its removal still waiting.
        const VXAudioGainPtr removed = list.at(1);
        removed->setState(0);
        list.removeObjectFromAudioGainsAtIndex(1);
        QCOMPARE(list.indexOf(removed.get()), -1);
        removed->setState(3);
        QTest::qWait(10);
        QCOMPARE(changed.count(), 0);
    }

    void selectionDrivesChosenItemsAndRemoval()
    {
        Controller c;
        QVERIFY(c.import(m_files));
        VXAudioGainList *list = c->audioGains();
        const QList<qint32> states{0, 1, 2, 3, 0};
        for (int i = 0; i < 5; ++i)
            list->at(i)->setState(states[i]);

        // No selection: every item is chosen, nothing can be removed.
        QCOMPARE(c->selectedAudioGains().size(), 5);
        QVERIFY(!c->canRemove());
        c->removeSelected();
        QCOMPARE(list->count(), 5);

        QSignalSpy canRemove(c.app.get(), &AppDelegate::canRemoveChanged);
        c.select({1, 3});
        QVERIFY(c->canRemove());
        QVERIFY(c->removeSelectedAction()->isEnabled());
        QCOMPARE(canRemove.count(), 1);
        QCOMPARE(c->selectedAudioGains(), (QList<VXAudioGainPtr>{list->at(1), list->at(3)}));
        // Row 1 runs: the face follows the chosen items.
        QCOMPARE(c->btnGain()->text(), QStringLiteral("Cancel"));

        const VXAudioGainPtr running = list->at(1);
        c->removeSelected();
        QCOMPARE(list->count(), 4);
        QCOMPARE(list->at(1), running);

        // Clear spares the running items (states 1 and 2), in their order.
        QSignalSpy removed(list, &QAbstractItemModel::rowsRemoved);
        c->cleanGains();
        QCOMPARE(list->count(), 2);
        QCOMPARE(list->at(0)->state(), 1);
        QCOMPARE(list->at(1)->state(), 2);
        QCOMPARE(c.names(), (QStringList{QStringLiteral("f1.wav"), QStringLiteral("f2.wav")}));

        // Removed files may come back: the duplicate rule forgets them.
        QVERIFY(!c->audioFileImported(m_files[0]));
        QVERIFY(c->audioFileImported(m_files[1].toUpper()));
        for (int i = 0; i < 2; ++i)
            list->at(i)->setState(3);
        c->cleanGains();
        QCOMPARE(list->count(), 0);
        QVERIFY(!c->allowGain());
    }

    void popupValueGoesToOneOrAllEditableItems()
    {
        Controller c;
        QVERIFY(c.import(m_files.mid(0, 3)));
        VXAudioGainList *list = c->audioGains();
        list->at(2)->setState(2);  // running: not editable
        RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();

        popup->setApplyToAll(false);
        popup->setRow(1);
        popup->setTargetLoudness(40.0f);
        popup->targetLoudnessChanged();
        QCOMPARE(list->at(0)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);
        QCOMPARE(list->at(1)->targetLoudness(), 40.0f);

        popup->setRow(2);  // running item: left alone
        popup->setTargetLoudness(10.0f);
        popup->targetLoudnessChanged();
        QCOMPARE(list->at(2)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);

        popup->setApplyToAll(true);
        popup->setTargetLoudness(55.5f);
        popup->targetLoudnessChanged();
        QCOMPARE(list->at(0)->targetLoudness(), 55.5f);
        QCOMPARE(list->at(1)->targetLoudness(), 55.5f);
        QCOMPARE(list->at(2)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);

        // A row that is gone (the list shrank) changes nothing.
        popup->setApplyToAll(false);
        list->at(2)->setState(3);
        c->cleanGains();
        popup->setRow(0);
        popup->setTargetLoudness(20.0f);
        popup->targetLoudnessChanged();
        QCOMPARE(list->count(), 0);
    }

    void outputFolderIsRememberedAndColoured()
    {
        QSettings().clear();
        const QString folder = m_dir.filePath(QStringLiteral("out"));
        QVERIFY(QDir().mkpath(folder));
        {
            Controller c;
            // Cancelling the dialog keeps the placeholder.
            c->folderSheetDidEnd(0, folder, false);
            QVERIFY(c->finalOutFolder().isNull());
            c->folderSheetDidEnd(1, folder, false);
            QCOMPARE(c->finalOutFolder(), folder);
            QCOMPARE(c->txtFolder()->text(), folder);
            QVERIFY(!c->btnActiveFolder()->isHidden());
            c->avtiveOutputPath();
            QCOMPARE(*c.revealed, QStringList{folder});

            // Replacing greys the folder out, and keeps it.
            const QColor normal = c->txtFolder()->palette().color(QPalette::Text);
            c->chkReplaceOriginalFile()->setChecked(true);
            QVERIFY(c->replaceOriginalFile());
            QVERIFY(c->txtFolder()->palette().color(QPalette::Text) != normal);
            QCOMPARE(c->finalOutFolder(), folder);
            c->chkReplaceOriginalFile()->setChecked(false);
            QCOMPARE(c->txtFolder()->palette().color(QPalette::Text), normal);
            c->chkReplaceOriginalFile()->setChecked(true);
        }
        {
            Controller c;  // a second run: same folder, check box off again
            QCOMPARE(c->finalOutFolder(), folder);
            QCOMPARE(c->txtFolder()->text(), folder);
            QVERIFY(!c->btnActiveFolder()->isHidden());
            QVERIFY(!c->replaceOriginalFile());
        }
        QVERIFY(QDir(folder).removeRecursively());
        {
            Controller c;  // the folder has gone: as if none was ever chosen
            QVERIFY(c->finalOutFolder().isNull());
            QVERIFY(c->btnActiveFolder()->isHidden());
            QVERIFY(QSettings().contains(QStringLiteral("kRQUserSelectedOutFolder")));
        }
    }
};

QTEST_MAIN(TestAppList)
#include "tst_applist.moc"
