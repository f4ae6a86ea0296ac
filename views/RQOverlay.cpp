#include "views/RQOverlay.h"

#include <QEvent>
#include <QPointer>
#include <QWidget>

namespace {
class OverlayFollower : public QObject {
public:
    OverlayFollower(QWidget *overlay, QWidget *target) : QObject(overlay), m_overlay(overlay)
    {
        target->installEventFilter(this);
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Resize && m_overlay && watched == m_overlay->parentWidget())
            m_overlay->setGeometry(m_overlay->parentWidget()->rect());
        return false;
    }

private:
    QPointer<QWidget> m_overlay;
};
}  // namespace

void rqOverlay(QWidget *overlay, QWidget *target)
{
    if (!overlay || !target)
        return;
    // Reparenting hides a widget; keep what its owner asked for (the veil
    // starts hidden, the guide does not).
    const bool visible = !(overlay->testAttribute(Qt::WA_WState_ExplicitShowHide) && overlay->isHidden());
    overlay->setParent(target);
    overlay->setGeometry(target->rect());
    new OverlayFollower(overlay, target);
    overlay->raise();
    overlay->setVisible(visible);
}
