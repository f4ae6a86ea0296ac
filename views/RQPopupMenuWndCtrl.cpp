#include "views/RQPopupMenuWndCtrl.h"

#include "engine/VXJobSettings.h"
#include "engine/VXLoudnessScale.h"
#include "engine/codec/VXCodecConstants.h"
#include "ui_RQPopupMenuWndCtrl.h"

#include <QApplication>
#include <QMenu>
#include <QScreen>
#include <QSignalBlocker>
#include <QWindow>

namespace {
VXJobSettings withPopupFields(VXJobSettings to, const VXJobSettings &from)
{
    to.truePeakCeiling = from.truePeakCeiling;
    to.limitPeaks = from.limitPeaks;
    to.dualMono = from.dualMono;
    to.skipWithin = from.skipWithin;
    return to;
}
} // namespace

struct RQPopupMenuWndCtrl::Private {
    bool applyToAll = false;
    float targetLoudness = VXLoudnessScale::kDefaultPosition;
    qint64 row = 0;
    // Only its ceiling, limiter, dual mono and skip fields are the popup's.
    VXJobSettings shown;
    QPointer<RQMeunWindow> window;
    Ui::RQPopupMenuWndCtrl ui;
};

RQPopupMenuWndCtrl::RQPopupMenuWndCtrl() : d(new Private) {}

RQPopupMenuWndCtrl *RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()
{
    static RQPopupMenuWndCtrl *instance = new RQPopupMenuWndCtrl;  // never released
    return instance;
}

bool RQPopupMenuWndCtrl::applyToAll() const { return d->applyToAll; }

void RQPopupMenuWndCtrl::setApplyToAll(bool v)
{
    if (d->applyToAll == v)
        return;
    d->applyToAll = v;
    if (d->window) {
        const QSignalBlocker block(d->ui.btnApplyToAll);
        d->ui.btnApplyToAll->setChecked(v);
    }
    emit applyToAllChanged();
}

float RQPopupMenuWndCtrl::targetLoudness() const { return d->targetLoudness; }

void RQPopupMenuWndCtrl::setTargetLoudness(float v)
{
    if (d->targetLoudness == v)
        return;
    d->targetLoudness = v;
    syncControls();
    emit targetLoudnessValueChanged();
}

qint64 RQPopupMenuWndCtrl::row() const { return d->row; }

void RQPopupMenuWndCtrl::setRow(qint64 r)
{
    if (d->row != r) {
        d->row = r;
        emit rowChanged();
    }
}

float RQPopupMenuWndCtrl::truePeakCeiling() const { return d->shown.truePeakCeiling; }

void RQPopupMenuWndCtrl::setTruePeakCeiling(float dbtp)
{
    VXJobSettings s = d->shown;
    s.truePeakCeiling = qBound(VXMinTruePeakTarget, dbtp, VXMaxTruePeakTarget);
    showJobSettings(s);
}

bool RQPopupMenuWndCtrl::limitPeaks() const { return d->shown.limitPeaks; }

void RQPopupMenuWndCtrl::setLimitPeaks(bool limit)
{
    VXJobSettings s = d->shown;
    s.limitPeaks = limit;
    showJobSettings(s);
}

bool RQPopupMenuWndCtrl::dualMono() const { return d->shown.dualMono; }

void RQPopupMenuWndCtrl::setDualMono(bool dualMono)
{
    VXJobSettings s = d->shown;
    s.dualMono = dualMono;
    showJobSettings(s);
}

double RQPopupMenuWndCtrl::skipWithin() const { return d->shown.skipWithin; }

void RQPopupMenuWndCtrl::setSkipWithin(double lu)
{
    VXJobSettings s = d->shown;
    // Anything the box cannot mean is "skip nothing".
    s.skipWithin = VXJobSettings::isValidSkipWithin(lu) ? lu : NAN;
    showJobSettings(s);
}

void RQPopupMenuWndCtrl::showJobSettings(const VXJobSettings &settings)
{
    const VXJobSettings s = withPopupFields(d->shown, settings);
    if (s == d->shown)
        return;
    d->shown = s;
    syncControls();
    emit jobSettingsChanged();
}

VXJobSettings RQPopupMenuWndCtrl::editedJobSettings(const VXJobSettings &settings) const
{
    return withPopupFields(settings, d->shown);
}

void RQPopupMenuWndCtrl::chooseLufs(double lufs)
{
    using namespace VXLoudnessScale;
    lufs = qBound(double(kMinLufs), lufs, double(kMaxLufs));
    // The scale hits every level of the box within 0.01 LU; the fallback
    // only guards against a level it would miss.
    const float position = positionForLufs(lufs).value_or(
        float((lufs - kMinLufs) * 100.0 / (double(kMaxLufs) - double(kMinLufs))));
    userChangedValue(position);
}

void RQPopupMenuWndCtrl::choosePreset(const VXPreset &preset)
{
    if (!std::isnan(preset.truePeak))
        setTruePeakCeiling(preset.truePeak);
    chooseLufs(preset.lufs);
}

QWidget *RQPopupMenuWndCtrl::window()
{
    if (!d->window) {
        d->window = new RQMeunWindow;
        d->ui.setupUi(d->window);
        awakeFromNib();
    }
    return d->window;
}

RQMenuView *RQPopupMenuWndCtrl::menuView()
{
    window();
    return d->ui.menuView;
}

QAbstractButton *RQPopupMenuWndCtrl::btnApplyToAll()
{
    window();
    return d->ui.btnApplyToAll;
}

QDoubleSpinBox *RQPopupMenuWndCtrl::spnTruePeakCeiling()
{
    window();
    return d->ui.spnTruePeakCeiling;
}

QAbstractButton *RQPopupMenuWndCtrl::chkLimitPeaks()
{
    window();
    return d->ui.chkLimitPeaks;
}

QDoubleSpinBox *RQPopupMenuWndCtrl::spnTargetLufs()
{
    window();
    return d->ui.spnTargetLufs;
}

QToolButton *RQPopupMenuWndCtrl::btnPresets()
{
    window();
    return d->ui.btnPresets;
}

QAbstractButton *RQPopupMenuWndCtrl::chkDualMono()
{
    window();
    return d->ui.chkDualMono;
}

QAbstractButton *RQPopupMenuWndCtrl::chkSkipWithin()
{
    window();
    return d->ui.chkSkipWithin;
}

QDoubleSpinBox *RQPopupMenuWndCtrl::spnSkipWithin()
{
    window();
    return d->ui.spnSkipWithin;
}

void RQPopupMenuWndCtrl::awakeFromNib()
{
    setApplyToAll(false);
    Ui::RQPopupMenuWndCtrl &ui = d->ui;

    QPalette checkPalette = ui.btnApplyToAll->palette();
    checkPalette.setColor(QPalette::WindowText, QColor(132, 128, 129));
    checkPalette.setColor(QPalette::ButtonText, QColor(132, 128, 129));
    for (QAbstractButton *button : std::initializer_list<QAbstractButton *>{
             ui.btnApplyToAll, ui.chkLimitPeaks, ui.chkSkipWithin, ui.chkDualMono, ui.btnPresets})
        button->setPalette(checkPalette);
    for (QLabel *label : {ui.lblTitle, ui.lblLufs, ui.lblTruePeakCeiling}) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, QColor(195, 195, 195));
        label->setPalette(palette);
    }

    // The slider counts tenths; the spin box keeps the exact value (70.77).
    connect(ui.sldTargetLoudness, &QSlider::valueChanged, this,
            [this](int tenths) { userChangedValue(tenths / 10.0f); });
    connect(ui.spnTargetLoudness, &QDoubleSpinBox::valueChanged, this,
            [this](double v) { userChangedValue(float(v)); });
    connect(ui.spnTargetLufs, &QDoubleSpinBox::valueChanged, this, &RQPopupMenuWndCtrl::chooseLufs);
    auto *presets = new QMenu(ui.btnPresets);
    for (const VXPreset &preset : kVXPresets) {
        const QString title = QString::fromUtf8(preset.title.data(), qsizetype(preset.title.size()));
        const QString text = std::isnan(preset.truePeak)
            ? tr("%1: %2 LUFS").arg(title).arg(double(preset.lufs))
            : tr("%1: %2 LUFS, %3 dBTP").arg(title).arg(double(preset.lufs)).arg(double(preset.truePeak));
        connect(presets->addAction(text), &QAction::triggered, this, [this, &preset] { choosePreset(preset); });
    }
    ui.btnPresets->setMenu(presets);
    connect(ui.btnApplyToAll, &QAbstractButton::toggled, this, [this](bool on) {
        setApplyToAll(on);
        // Ticking the box applies the shown value to every file at once;
        // unticking changes nothing that was already applied.
        if (on)
            targetLoudnessChanged();
    });
    // A quiet rule: the peak settings below it are for every file, not the row.
    QPalette rule = ui.sepPeaks->palette();
    rule.setColor(QPalette::WindowText, QColor(83, 79, 80));
    ui.sepPeaks->setPalette(rule);
    // The engine's range decides, should it ever differ from the form's.
    ui.spnTruePeakCeiling->setRange(VXMinTruePeakTarget, VXMaxTruePeakTarget);
    connect(ui.spnTruePeakCeiling, &QDoubleSpinBox::valueChanged, this,
            [this](double v) { setTruePeakCeiling(float(v)); });
    connect(ui.chkLimitPeaks, &QAbstractButton::toggled, this, &RQPopupMenuWndCtrl::setLimitPeaks);
    connect(ui.chkDualMono, &QAbstractButton::toggled, this, &RQPopupMenuWndCtrl::setDualMono);
    connect(ui.chkSkipWithin, &QAbstractButton::toggled, this,
            [this](bool on) { setSkipWithin(on ? d->ui.spnSkipWithin->value() : NAN); });
    connect(ui.spnSkipWithin, &QDoubleSpinBox::valueChanged, this, [this](double lu) {
        if (d->ui.chkSkipWithin->isChecked())
            setSkipWithin(lu);
    });
    connect(d->window, &RQMeunWindow::resignedKey, d->window, &QWidget::hide);
    // Alt+F4 reaches the popup, which holds the keyboard: it is meant for
    // the window under it, which then closes as it would have.
    connect(d->window, &RQMeunWindow::closeRequested, this, [this] {
        QWindow *handle = d->window->windowHandle();
        QWindow *owner = handle ? handle->transientParent() : nullptr;
        d->window->hide();
        if (owner)
            owner->close();
    });
    connect(d->window, &RQMeunWindow::stepRequested, this, [this](int steps) {
        userChangedValue(qBound(0.0f, d->targetLoudness + float(steps), 100.0f));
    });
    syncControls();
}

void RQPopupMenuWndCtrl::syncControls()
{
    if (!d->window)
        return;
    Ui::RQPopupMenuWndCtrl &ui = d->ui;
    const float v = d->targetLoudness;
    {
        const QSignalBlocker blockSlider(ui.sldTargetLoudness);
        const QSignalBlocker blockSpin(ui.spnTargetLoudness);
        ui.sldTargetLoudness->setValue(qRound(v * 10.0f));
        ui.spnTargetLoudness->setValue(v);
    }
    const float lufs = VXLoudnessScale::lufsForPosition(v);
    ui.lblLufs->setText(tr("%1 LUFS").arg(double(lufs), 0, 'f', 1));
    const QSignalBlocker blockLufs(ui.spnTargetLufs);
    const QSignalBlocker blockCeiling(ui.spnTruePeakCeiling);
    const QSignalBlocker blockLimit(ui.chkLimitPeaks);
    const QSignalBlocker blockDualMono(ui.chkDualMono);
    const QSignalBlocker blockSkip(ui.chkSkipWithin);
    const QSignalBlocker blockSkipValue(ui.spnSkipWithin);
    ui.spnTargetLufs->setValue(lufs);
    const VXJobSettings &shown = d->shown;
    ui.spnTruePeakCeiling->setValue(shown.truePeakCeiling);
    ui.chkLimitPeaks->setChecked(shown.limitPeaks);
    ui.chkDualMono->setChecked(shown.dualMono);
    const bool skip = !std::isnan(shown.skipWithin);
    ui.chkSkipWithin->setChecked(skip);
    // Unticked, the box keeps the last value for the next tick.
    if (skip)
        ui.spnSkipWithin->setValue(shown.skipWithin);
    ui.spnSkipWithin->setEnabled(skip);
}

void RQPopupMenuWndCtrl::userChangedValue(float value)
{
    setTargetLoudness(value);
    targetLoudnessChanged();
}

void RQPopupMenuWndCtrl::popupMenuWndWithLocation(const QPoint &globalPoint)
{
    setApplyToAll(false);
    QWidget *win = window();
    // Wayland positions a popup relative to its parent window only.
    QWidget *active = QApplication::activeWindow();
    if (active && active != win && active->windowHandle()) {
        win->winId();
        win->windowHandle()->setTransientParent(active->windowHandle());
    }
    // A popup on Linux is not moved by the window system: one that crosses
    // an edge would hide its value box.
    QScreen *screen = QGuiApplication::screenAt(globalPoint);
    if (!screen && active)
        screen = active->screen();
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QSize size = win->size().expandedTo(win->minimumSizeHint());
    win->move(screen ? placeInside(QRect(globalPoint, size), screen->availableGeometry()) : globalPoint);
    win->show();
    win->raise();
    win->activateWindow();
    d->ui.sldTargetLoudness->setFocus(Qt::PopupFocusReason);
}

QPoint RQPopupMenuWndCtrl::placeInside(const QRect &wanted, const QRect &available)
{
    QPoint at = wanted.topLeft();
    at.setX(qMax(available.left(), qMin(at.x(), available.right() + 1 - wanted.width())));
    at.setY(qMax(available.top(), qMin(at.y(), available.bottom() + 1 - wanted.height())));
    return at;
}

void RQPopupMenuWndCtrl::targetLoudnessChanged()
{
    emit targetLoudnessChosen();
}
