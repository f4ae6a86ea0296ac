#include "views/RQBottomView.h"

#include <QChildEvent>
#include <QLayout>
#include <QPaintEvent>
#include <QPainter>

namespace {
const QColor kBackground(70, 66, 67);
const QColor kTopLine(63, 57, 59);
const QColor kFolderFrame(132, 129, 128);
const QColor kDivider(47, 43, 44);
const QLatin1String kFolderViewName("folderView");
// The dividers span 16 to 44 points above the bar's bottom edge. They sit in
// the gaps on either side of the folder field, so a wide window never draws
// one through the field; without a field, at the design positions.
constexpr int kDesignDividerX[] = {53, 673};
constexpr int kDividerBottom = 16, kDividerTop = 44;
}  // namespace

RQBottomView::RQBottomView(QWidget *parent) : QWidget(parent) {}

QRect RQBottomView::frameOfFolderView() const
{
    for (QObject *child : children()) {
        auto *widget = qobject_cast<QWidget *>(child);
        if (widget && widget->objectName() == kFolderViewName)
            return widget->geometry().translated(0, -1);
    }
    return {};
}

void RQBottomView::paintEvent(QPaintEvent *event)
{
    QPainter painter(this);
    const int w = width(), h = height();
    painter.fillRect(event->rect(), kBackground);
    painter.fillRect(QRect(0, 0, w, 1), kTopLine);

    const QRect folder = frameOfFolderView();
    if (!folder.isEmpty()) {
        // A one-point border drawn inside the rect, like a frame around the field.
        painter.fillRect(QRect(folder.left(), folder.top(), folder.width(), 1), kFolderFrame);
        painter.fillRect(QRect(folder.left(), folder.bottom(), folder.width(), 1), kFolderFrame);
        painter.fillRect(QRect(folder.left(), folder.top(), 1, folder.height()), kFolderFrame);
        painter.fillRect(QRect(folder.right(), folder.top(), 1, folder.height()), kFolderFrame);
    }

    QList<int> dividers(std::begin(kDesignDividerX), std::end(kDesignDividerX));
    if (!folder.isEmpty()) {
        const int half = layout() ? qMax(1, layout()->spacing() / 2) : 6;
        dividers = {folder.left() - half, folder.right() + half};
    }
    for (int x : std::as_const(dividers))
        painter.fillRect(QRect(x, h - kDividerTop, 1, kDividerTop - kDividerBottom), kDivider);
}

void RQBottomView::childEvent(QChildEvent *event)
{
    // The frame follows the folder field when the layout moves it without
    // resizing the bar (a neighbour shown or hidden).
    if (event->added() && event->child()->isWidgetType())
        event->child()->installEventFilter(this);
    QWidget::childEvent(event);
}

bool RQBottomView::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::Move:
    case QEvent::Resize:
    case QEvent::Show:
    case QEvent::Hide:
        if (watched->parent() == this && watched->objectName() == kFolderViewName)
            update();
        break;
    default:
        break;
    }
    return QWidget::eventFilter(watched, event);
}
