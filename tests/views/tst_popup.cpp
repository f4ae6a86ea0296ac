#include "views/RQPopupMenuWndCtrl.h"
#include "engine/VXJobSettings.h"
#include "engine/VXLoudnessScale.h"

#include <QAbstractButton>
#include <QDoubleSpinBox>
#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QSignalSpy>
#include <QSlider>
#include <QMenu>
#include <QToolButton>
#include <QtTest>

class TestPopup : public QObject {
    Q_OBJECT
private slots:
    void cleanup() { RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window()->hide(); }
    void opensAtTheAnchorPresetAndReset();
    void everyUserChangePostsOnceKeysAndEscape();
    void typedLevelsAndPresetsSetPositionAndCeiling();
    void showsAndEditsItsOwnFieldsOfTheSettings();
    void hidesWhenAnotherWindowIsActivated();
    void staysInsideTheScreenNearEachEdge();
};

void TestPopup::opensAtTheAnchorPresetAndReset()
{
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    QSignalSpy posted(popup, &RQPopupMenuWndCtrl::targetLoudnessChosen);

    popup->setApplyToAll(true);
    popup->setTargetLoudness(70.77f);
    popup->setRow(3);
    popup->popupMenuWndWithLocation(QPoint(400, 300));
    QWidget *window = popup->window();
    QVERIFY(window->isVisible());
    QCOMPARE(window->frameGeometry().topLeft(), QPoint(400, 300));
    QVERIFY(!popup->applyToAll());
    QVERIFY(!popup->btnApplyToAll()->isChecked());
    QCOMPARE(window->findChild<QDoubleSpinBox *>()->value(), 70.77);
    QCOMPARE(window->findChild<QSlider *>()->value(), 708);
    QCOMPARE(window->findChild<QLabel *>(QStringLiteral("lblLufs"))->text(), QStringLiteral("-24.0 LUFS"));
    QCOMPARE(posted.count(), 0);  // presetting is not a change by the user
}

void TestPopup::everyUserChangePostsOnceKeysAndEscape()
{
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->setTargetLoudness(70.77f);
    popup->popupMenuWndWithLocation(QPoint(10, 10));
    QSignalSpy posted(popup, &RQPopupMenuWndCtrl::targetLoudnessChosen);
    auto *slider = popup->window()->findChild<QSlider *>();
    auto *spin = popup->window()->findChild<QDoubleSpinBox *>();

    slider->setValue(500);
    QCOMPARE(popup->targetLoudness(), 50.0f);
    QCOMPARE(spin->value(), 50.0);
    QCOMPARE(popup->window()->findChild<QLabel *>(QStringLiteral("lblLufs"))->text(), QStringLiteral("-37.5 LUFS"));
    QCOMPARE(posted.count(), 1);

    spin->setValue(33.33);
    QCOMPARE(popup->targetLoudness(), 33.33f);
    QCOMPARE(slider->value(), 333);
    QCOMPARE(posted.count(), 2);

    // Ticking "apply to all" applies the shown value; unticking does not post.
    popup->btnApplyToAll()->click();
    QVERIFY(popup->applyToAll());
    QCOMPARE(posted.count(), 3);
    popup->btnApplyToAll()->click();
    QVERIFY(!popup->applyToAll());
    QCOMPARE(posted.count(), 3);

    // The action itself posts even when nothing changed.
    popup->targetLoudnessChanged();
    QCOMPARE(posted.count(), 4);

    // Keys step the value and stop at 100; Escape, even in a control, closes.
    popup->setTargetLoudness(99.5f);
    QTest::keyClick(popup->window(), Qt::Key_Down);
    QCOMPARE(popup->targetLoudness(), 98.5f);
    QTest::keyClick(popup->window(), Qt::Key_Up);
    QTest::keyClick(popup->window(), Qt::Key_Up);
    QCOMPARE(popup->targetLoudness(), 100.0f);
    QTest::keyClick(popup->window(), Qt::Key_PageDown);
    QCOMPARE(popup->targetLoudness(), 90.0f);
    QCOMPARE(posted.count(), 8);
    QTest::keyClick(spin, Qt::Key_Escape);
    QVERIFY(!popup->window()->isVisible());
}

void TestPopup::typedLevelsAndPresetsSetPositionAndCeiling()
{
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->setTargetLoudness(70.77f);
    popup->setTruePeakCeiling(-4.0f);
    popup->popupMenuWndWithLocation(QPoint(10, 10));
    QSignalSpy posted(popup, &RQPopupMenuWndCtrl::targetLoudnessChosen);
    auto *lufs = popup->spnTargetLufs();
    QCOMPARE(lufs->value(), -24.0);

    // A typed level moves the position, the slider and the reading with it.
    lufs->setValue(-16.0);
    QCOMPARE(popup->targetLoudness(), *VXLoudnessScale::positionForLufs(-16.0));
    QCOMPARE(popup->window()->findChild<QSlider *>()->value(), qRound(popup->targetLoudness() * 10.0f));
    QCOMPARE(popup->window()->findChild<QLabel *>(QStringLiteral("lblLufs"))->text(), QStringLiteral("-16.0 LUFS"));
    QCOMPARE(posted.count(), 1);
    // ...and the position box moves the level box.
    popup->window()->findChild<QDoubleSpinBox *>(QStringLiteral("spnTargetLoudness"))->setValue(50.0);
    QCOMPARE(lufs->value(), -37.5);
    QCOMPARE(posted.count(), 2);

    // Each preset is the engine's: level always, ceiling only where named.
    const QList<QAction *> actions = popup->btnPresets()->menu()->actions();
    QCOMPARE(actions.size(), qsizetype(std::size(kVXPresets)));
    for (qsizetype i = 0; i < actions.size(); ++i) {
        const VXPreset &preset = kVXPresets[i];
        const float before = popup->truePeakCeiling();
        actions[i]->trigger();
        QVERIFY(qAbs(VXLoudnessScale::lufsForPosition(popup->targetLoudness()) - preset.lufs) < 0.01f);
        QCOMPARE(popup->truePeakCeiling(), std::isnan(preset.truePeak) ? before : preset.truePeak);
        QCOMPARE(popup->spnTruePeakCeiling()->value(), double(popup->truePeakCeiling()));
        QCOMPARE(posted.count(), 3 + i);
    }
    QCOMPARE(VXPresetNamed("atsc")->truePeak, -2.0f);  // the last with a ceiling of its own
    QCOMPARE(popup->truePeakCeiling(), -2.0f);

    // The skip box is off until ticked, and keeps its value when unticked.
    QVERIFY(std::isnan(popup->skipWithin()));
    popup->spnSkipWithin()->setValue(1.5);
    QVERIFY(std::isnan(popup->skipWithin()));
    popup->chkSkipWithin()->click();
    QCOMPARE(popup->skipWithin(), 1.5);
    popup->chkSkipWithin()->click();
    QVERIFY(std::isnan(popup->skipWithin()));
    QVERIFY(!popup->spnSkipWithin()->isEnabled());
    popup->setTruePeakCeiling(-2.0f);
}

// The popup edits its own fields of the next Gain's settings and leaves the
// others to their editors; showing what it already shows reports nothing.
void TestPopup::showsAndEditsItsOwnFieldsOfTheSettings()
{
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    QSignalSpy changed(popup, &RQPopupMenuWndCtrl::jobSettingsChanged);
    QSignalSpy chosen(popup, &RQPopupMenuWndCtrl::targetLoudnessChosen);
    VXJobSettings shown;
    shown.truePeakCeiling = -3.0f;
    shown.limitPeaks = true;
    shown.skipWithin = 2.0;
    popup->showJobSettings(shown);
    popup->showJobSettings(shown);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(popup->spnTruePeakCeiling()->value(), -3.0);
    QVERIFY(popup->chkLimitPeaks()->isChecked());
    QVERIFY(popup->chkSkipWithin()->isChecked());
    QCOMPARE(popup->spnSkipWithin()->value(), 2.0);

    popup->chkDualMono()->click();
    QCOMPARE(changed.count(), 2);
    VXJobSettings other;
    other.tagsOnly = true;
    other.targetLoudness = 20.0f;
    const VXJobSettings edited = popup->editedJobSettings(other);
    QVERIFY(edited.dualMono && edited.limitPeaks && edited.tagsOnly);
    QCOMPARE(edited.truePeakCeiling, -3.0f);
    QCOMPARE(edited.skipWithin, 2.0);
    QCOMPARE(edited.targetLoudness, 20.0f);
    QCOMPARE(chosen.count(), 0);
    popup->showJobSettings(VXJobSettings());
    QVERIFY(!popup->chkDualMono()->isChecked());
}

void TestPopup::hidesWhenAnotherWindowIsActivated()
{
    QWidget main;
    main.resize(300, 200);
    main.show();
    main.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&main));
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->popupMenuWndWithLocation(QPoint(50, 50));
    QVERIFY(popup->window()->isVisible());

    QWidget other;
    other.resize(200, 100);
    other.show();
    other.activateWindow();
    QTRY_VERIFY_WITH_TIMEOUT(!popup->window()->isVisible(), 5000);
}

void TestPopup::staysInsideTheScreenNearEachEdge()
{
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    QWidget *window = popup->window();
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    const QPoint middle = screen.center() - QPoint(window->width(), window->height()) / 2;
    // Asked for: where it must land.
    const QList<std::pair<QPoint, QPoint>> cases{
        {middle, middle},
        {QPoint(screen.right() - 10, middle.y()), QPoint(screen.right() + 1 - window->width(), middle.y())},
        {QPoint(middle.x(), screen.bottom() - 10), QPoint(middle.x(), screen.bottom() + 1 - window->height())},
        {QPoint(screen.left() - 50, middle.y()), QPoint(screen.left(), middle.y())},
        {QPoint(middle.x(), screen.top() - 50), QPoint(middle.x(), screen.top())},
        {screen.bottomRight(), screen.bottomRight() + QPoint(1, 1) - QPoint(window->width(), window->height())},
    };
    for (const auto &[asked, expected] : cases) {
        popup->popupMenuWndWithLocation(asked);
        QVERIFY(window->isVisible());
        QCOMPARE(window->pos(), expected);
        QVERIFY(screen.contains(window->geometry()));
        window->hide();
    }
}

QTEST_MAIN(TestPopup)
#include "tst_popup.moc"
