#pragma once

#include <QObject>
#include <QPoint>
#include <QPointer>

class QAbstractButton;
class QRect;
class QDoubleSpinBox;
class QToolButton;
struct VXPreset;
class QWidget;
class RQMenuView;
struct VXJobSettings;

// The shared target-loudness popup: one instance for the application's life.
// Observers read applyToAll, row and targetLoudness from it when it reports
// targetLoudnessChosen.
// It is also an editor of the next Gain's settings (VXJobSettings): it shows
// how peaks are treated (the true-peak ceiling, and whether a limiter may
// hold peaks to reach the target), whether mono files are measured as on two
// speakers, and whether files already near their target are left untouched.
// Those report jobSettingsChanged, never targetLoudnessChosen.
class RQPopupMenuWndCtrl : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool applyToAll READ applyToAll WRITE setApplyToAll NOTIFY applyToAllChanged)
    Q_PROPERTY(float targetLoudness READ targetLoudness WRITE setTargetLoudness NOTIFY targetLoudnessValueChanged)
    Q_PROPERTY(qint64 row READ row WRITE setRow NOTIFY rowChanged)
    Q_PROPERTY(float truePeakCeiling READ truePeakCeiling WRITE setTruePeakCeiling NOTIFY jobSettingsChanged)
    Q_PROPERTY(bool limitPeaks READ limitPeaks WRITE setLimitPeaks NOTIFY jobSettingsChanged)
    Q_PROPERTY(bool dualMono READ dualMono WRITE setDualMono NOTIFY jobSettingsChanged)
    Q_PROPERTY(double skipWithin READ skipWithin WRITE setSkipWithin NOTIFY jobSettingsChanged)

public:
    static RQPopupMenuWndCtrl *sharePopupMenuWndCtrl();

    bool applyToAll() const;
    void setApplyToAll(bool applyToAll);
    float targetLoudness() const;
    void setTargetLoudness(float value);
    qint64 row() const;
    void setRow(qint64 row);
    // dBTP, clamped to -9..0.
    float truePeakCeiling() const;
    void setTruePeakCeiling(float dbtp);
    bool limitPeaks() const;
    void setLimitPeaks(bool limit);
    bool dualMono() const;
    void setDualMono(bool dualMono);
    // LU; NaN (the box unticked) skips nothing.
    double skipWithin() const;
    void setSkipWithin(double lu);
    // Shows the popup's fields of the settings; the others are not its own.
    void showJobSettings(const VXJobSettings &settings);
    // The settings given, with the popup's fields as it shows them.
    VXJobSettings editedJobSettings(const VXJobSettings &settings) const;

    // As the user typing a level: the position whose target it is (clamped
    // to the scale), posted as a change.
    void chooseLufs(double lufs);
    // As the user picking a preset: its level, and its ceiling where it
    // names one, posted as one change.
    void choosePreset(const VXPreset &preset);

    // The popup window, loaded from RQPopupMenuWndCtrl.ui on first use.
    QWidget *window();
    RQMenuView *menuView();
    QAbstractButton *btnApplyToAll();
    QDoubleSpinBox *spnTruePeakCeiling();
    QAbstractButton *chkLimitPeaks();
    QDoubleSpinBox *spnTargetLufs();
    QToolButton *btnPresets();
    QAbstractButton *chkDualMono();
    QAbstractButton *chkSkipWithin();
    QDoubleSpinBox *spnSkipWithin();
    // Top-left corner at the global point, moved back inside the screen's
    // available area where it would cross an edge; shown and activated.
    void popupMenuWndWithLocation(const QPoint &globalPoint);
    // Where a window of the wanted geometry goes so that all of it is on
    // the available area (its top-left corner when it is larger).
    static QPoint placeInside(const QRect &wanted, const QRect &available);
    // Reports targetLoudnessChosen, unconditionally.
    void targetLoudnessChanged();

signals:
    void applyToAllChanged();
    void targetLoudnessValueChanged();
    void rowChanged();
    // The user chose a target: for the row, or for every row (applyToAll).
    void targetLoudnessChosen();
    // One of the ceiling, limiter, dual mono or skip fields changed.
    void jobSettingsChanged();

private:
    RQPopupMenuWndCtrl();
    void awakeFromNib();
    void syncControls();
    void userChangedValue(float value);
    struct Private;
    Private *d;
};
