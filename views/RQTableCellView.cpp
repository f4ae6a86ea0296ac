#include "views/RQTableCellView.h"

#include "engine/VXAudioGainList.h"
#include "engine/VXGainState.h"
#include "views/RQImages.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>

namespace {
const QColor kUnselected(61, 57, 58);
const QColor kSelected(53, 51, 52);
const QColor kSeparator(47, 43, 44);
const QColor kTitle(195, 195, 195);
const QColor kDimmed(132, 129, 128);
const QColor kPeakCapped(240, 176, 64);

const VXAudioGain *itemAt(const QModelIndex &index)
{
    return index.data(VXAudioGainList::ItemRole).value<VXAudioGain *>();
}

// A success whose gain stopped at the true-peak ceiling, so the file may sit
// below its target: the success mark alone would hide that.
bool isPeakCapped(const QModelIndex &index)
{
    if (index.data(VXAudioGainList::StateRole).toInt() != VXGainFinished
        || index.data(VXAudioGainList::RetCodeRole).toLongLong() != VXGainSucceeded)
        return false;
    const VXAudioGain *item = itemAt(index);
    return item && item->gainResult().normalization == QLatin1String("peak-capped");
}

QAbstractItemView *itemView(const QWidget *widget)
{
    // The style option hands the view out as const; installing filters and
    // scheduling repaints on it is what the view expects from its delegate.
    return qobject_cast<QAbstractItemView *>(const_cast<QWidget *>(widget));
}

bool isActivationKey(const QKeyEvent *key)
{
    const auto mods = key->modifiers() & ~Qt::KeypadModifier;
    return mods == Qt::NoModifier
        && (key->key() == Qt::Key_Space || key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter);
}
}  // namespace

RQTableCellView::RQTableCellView(QObject *parent) : QStyledItemDelegate(parent) {}

RQTableCellView::Layout RQTableCellView::layout(const QRect &row)
{
    Layout l;
    const int left = row.left(), top = row.top(), right = row.left() + row.width();
    l.art = QRect(left + 8, top + (row.height() - 48) / 2, 48, 48);
    l.state = QRect(right - 16 - 32, top + (row.height() - 32) / 2, 32, 32);
    l.edtTargetLoudness = QRect(l.state.left() - 20 - 72, top + (row.height() - 26) / 2, 72, 26);
    l.loudnessImgView = QRect(l.edtTargetLoudness.left() - 6 - 20, top + (row.height() - 20) / 2, 20, 20);
    const int textLeft = l.art.right() + 13;
    const int textWidth = qMax(0, l.loudnessImgView.left() - 12 - textLeft);
    l.name = QRect(textLeft, top + row.height() / 2 - 22, textWidth, 20);
    l.info = QRect(textLeft, top + row.height() / 2 + 2, textWidth, 18);
    return l;
}

void RQTableCellView::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    watchView(option.widget);
    const QRect r = option.rect;
    const Layout l = layout(r);
    painter->save();
    // The base class is never called: the view's own highlight would hide
    // the two background colours, the only selection marking we draw.
    painter->fillRect(r, (option.state & QStyle::State_Selected) ? kSelected : kUnselected);
    painter->fillRect(QRect(r.left(), r.bottom(), r.width(), 1), kSeparator);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);

    const QImage face = index.data(VXAudioGainList::FaceRole).value<QImage>();
    if (!face.isNull()) {
        const QSizeF size = QSizeF(face.size()).scaled(QSizeF(l.art.size()), Qt::KeepAspectRatio);
        QRectF target(QPointF(), size);
        target.moveCenter(QRectF(l.art).center());
        painter->drawImage(target, face);
    }

    QFont font = option.font;
    painter->setFont(font);
    painter->setPen(kTitle);
    const QString name = index.data(VXAudioGainList::NameRole).toString();
    painter->drawText(l.name, Qt::AlignLeft | Qt::AlignVCenter,
                      painter->fontMetrics().elidedText(name, Qt::ElideMiddle, l.name.width()));

    QStringList info;
    for (int role : {VXAudioGainList::SizeTextRole, VXAudioGainList::DurationTextRole}) {
        const QString text = index.data(role).toString();
        if (!text.isEmpty())
            info << text;
    }
    if (font.pointSizeF() > 0)
        font.setPointSizeF(font.pointSizeF() * 0.9);
    painter->setFont(font);
    painter->setPen(kDimmed);
    painter->drawText(l.info, Qt::AlignLeft | Qt::AlignVCenter,
                      painter->fontMetrics().elidedText(info.join(QStringLiteral("   ·   ")), Qt::ElideRight,
                                                        l.info.width()));

    const qreal dpr = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    const QImage loudness = rqImageNamed(QString::fromLatin1(kRQLoudnessImage), dpr);
    if (!loudness.isNull())
        painter->drawImage(QRectF(l.loudnessImgView), loudness);

    QStyleOptionButton button;
    button.rect = l.edtTargetLoudness;
    button.text = index.data(VXAudioGainList::TargetTextRole).toString();
    button.palette = option.palette;
    button.fontMetrics = option.fontMetrics;
    button.direction = option.direction;
    const bool enabled = index.data(VXAudioGainList::AllowedTargetEditRole).toBool();
    button.state = enabled ? QStyle::State_Enabled : QStyle::State_None;
    button.state |= (enabled && m_pressed.isValid() && m_pressed == index) ? QStyle::State_Sunken
                                                                          : QStyle::State_Raised;
    painter->setFont(option.font);
    const QStyle *style = option.widget ? option.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_PushButton, &button, painter, option.widget);

    const QImage state = index.data(VXAudioGainList::StateImageRole).value<QImage>();
    if (!state.isNull())
        painter->drawImage(QRectF(l.state), state);
    if (isPeakCapped(index)) {
        // Small, at the mark's lower right, ringed in the row's colour so it
        // stands apart from the mark without changing it.
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(QPen((option.state & QStyle::State_Selected) ? kSelected : kUnselected, 1.5));
        painter->setBrush(kPeakCapped);
        painter->drawEllipse(QRectF(l.state.right() - 9.5, l.state.bottom() - 9.5, 10, 10));
    }
    // Keyboard users must see which row Space, Return and the arrows act on.
    if (option.state & QStyle::State_HasFocus) {
        painter->setRenderHint(QPainter::Antialiasing, false);
        painter->setPen(QPen(kTitle, 1, Qt::DotLine));
        painter->setBrush(Qt::NoBrush);
        painter->drawRect(r.adjusted(1, 1, -2, -2));
    }
    painter->restore();
}

bool RQTableCellView::helpEvent(QHelpEvent *event, QAbstractItemView *view, const QStyleOptionViewItem &option,
                                const QModelIndex &index)
{
    if (event && view && event->type() == QEvent::ToolTip) {
        const Layout l = layout(option.rect);
        const VXAudioGain *item = itemAt(index);
        // The target field shows the position; people think in LUFS.
        if (item && l.edtTargetLoudness.contains(event->pos())) {
            QToolTip::showText(event->globalPos(), tr("Target %1 LUFS").arg(double(item->loudnormValue()), 0, 'f', 1),
                               view->viewport(), l.edtTargetLoudness);
            return true;
        }
        const QString text = item && l.state.contains(event->pos()) ? item->outcomeText() : QString();
        if (!text.isEmpty()) {
            // Tied to the disc's rectangle: the tip goes when the pointer leaves it.
            QToolTip::showText(event->globalPos(), text, view->viewport(), l.state);
            return true;
        }
    }
    return QStyledItemDelegate::helpEvent(event, view, option, index);
}

QSize RQTableCellView::sizeHint(const QStyleOptionViewItem &, const QModelIndex &) const
{
    return {360, kRowHeight};
}

void RQTableCellView::repaintRow(const QStyleOptionViewItem &option) const
{
    if (QAbstractItemView *view = itemView(option.widget))
        view->viewport()->update(option.rect);
}

bool RQTableCellView::editorEvent(QEvent *event, QAbstractItemModel *, const QStyleOptionViewItem &option,
                                  const QModelIndex &index)
{
    watchView(option.widget);
    const Layout l = layout(option.rect);
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        const auto *mouse = static_cast<QMouseEvent *>(event);
        if (mouse->button() != Qt::LeftButton || !l.edtTargetLoudness.contains(mouse->position().toPoint()))
            return false;
        if (index.data(VXAudioGainList::AllowedTargetEditRole).toBool()) {
            m_pressed = index;
            repaintRow(option);
        }
        return true;  // a disabled button still swallows the click
    }
    case QEvent::MouseButtonRelease: {
        if (!m_pressed.isValid())
            return false;
        const auto *mouse = static_cast<QMouseEvent *>(event);
        const bool clicked = m_pressed == index && l.edtTargetLoudness.contains(mouse->position().toPoint());
        m_pressed = QPersistentModelIndex();
        repaintRow(option);
        if (clicked)
            emit targetLoudnessClicked(index.row(), l.loudnessImgView);
        return true;
    }
    case QEvent::KeyPress:
        return activateFromKey(itemView(option.widget), index, event);
    default:
        return false;
    }
}

bool RQTableCellView::activateFromKey(QAbstractItemView *view, const QModelIndex &index, QEvent *event)
{
    if (!view || !index.isValid() || !isActivationKey(static_cast<QKeyEvent *>(event)))
        return false;
    if (!index.data(VXAudioGainList::AllowedTargetEditRole).toBool())
        return false;
    emit targetLoudnessClicked(index.row(), layout(view->visualRect(index)).loudnessImgView);
    return true;
}

void RQTableCellView::watchView(const QWidget *widget) const
{
    QAbstractItemView *view = itemView(widget);
    if (!view || view == m_view)
        return;
    auto *self = const_cast<RQTableCellView *>(this);  // filters are installed lazily, from paint
    if (m_view)
        m_view->removeEventFilter(self);
    if (m_viewport)
        m_viewport->removeEventFilter(self);
    m_view = view;
    m_viewport = view->viewport();
    m_viewId = view;
    view->installEventFilter(self);
    view->viewport()->installEventFilter(self);
}

bool RQTableCellView::eventFilter(QObject *watched, QEvent *event)
{
    // The base class takes every watched widget for an editor (Tab, focus
    // out...): the list and its viewport must not go there. Only the two
    // event kinds below are looked at, so the list is never asked for its
    // viewport while it is being torn down.
    const bool ours = watched == m_viewId || (m_viewport && watched == m_viewport.data());
    if (!ours)
        return QStyledItemDelegate::eventFilter(watched, event);
    if (watched == m_viewId && event->type() == QEvent::KeyPress && m_view) {
        // The list turns Enter into "activated" before any delegate sees it.
        return activateFromKey(m_view, m_view->currentIndex(), event);
    }
    if (watched == m_viewport.data() && event->type() == QEvent::MouseButtonRelease && m_pressed.isValid()) {
        // A release away from the pressed row never reaches editorEvent for it.
        const auto *mouse = static_cast<QMouseEvent *>(event);
        if (m_view->indexAt(mouse->position().toPoint()) != m_pressed) {
            m_view->viewport()->update(m_view->visualRect(m_pressed));
            m_pressed = QPersistentModelIndex();
        }
    }
    return false;
}
