#include "views/RQPopupMenuWndCtrl.h"

#include <QWidget>

RQNotificationCenter *RQNotificationCenter::defaultCenter()
{
    static RQNotificationCenter center;
    return &center;
}

void RQNotificationCenter::postNotificationName(const QString &name, QObject *sender)
{
    emit notificationPosted(name, sender);
}

struct RQPopupMenuWndCtrl::Private {
    bool applyToAll = false;
    float targetLoudness = 70.77f;
    qint64 row = 0;
    QPointer<QWidget> window;
};

RQPopupMenuWndCtrl::RQPopupMenuWndCtrl() : d(new Private) {}

RQPopupMenuWndCtrl *RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()
{
    static RQPopupMenuWndCtrl *instance = new RQPopupMenuWndCtrl;  // never released
    return instance;
}

bool RQPopupMenuWndCtrl::applyToAll() const { return d->applyToAll; }
void RQPopupMenuWndCtrl::setApplyToAll(bool v) { if (d->applyToAll != v) { d->applyToAll = v; emit applyToAllChanged(); } }
float RQPopupMenuWndCtrl::targetLoudness() const { return d->targetLoudness; }
void RQPopupMenuWndCtrl::setTargetLoudness(float v) { d->targetLoudness = v; emit targetLoudnessValueChanged(); }
qint64 RQPopupMenuWndCtrl::row() const { return d->row; }
void RQPopupMenuWndCtrl::setRow(qint64 r) { if (d->row != r) { d->row = r; emit rowChanged(); } }

QWidget *RQPopupMenuWndCtrl::window()
{
    if (!d->window)
        d->window = new QWidget(nullptr, Qt::Popup);
    return d->window;
}

void RQPopupMenuWndCtrl::popupMenuWndWithLocation(const QPoint &globalPoint)
{
    setApplyToAll(false);
    window()->move(globalPoint);
    window()->show();
    window()->activateWindow();
}

void RQPopupMenuWndCtrl::targetLoudnessChanged(QObject *)
{
    RQNotificationCenter::defaultCenter()->postNotificationName(QString::fromLatin1(kRQTargetLoudnessChaned), this);
}
