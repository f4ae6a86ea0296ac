#include "views/RQTableCellView.h"

#include "engine/VXAudioGainList.h"

#include <QPainter>

RQTableCellView::RQTableCellView(QObject *parent) : QStyledItemDelegate(parent) {}

void RQTableCellView::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyledItemDelegate::paint(painter, option, index);
}

QSize RQTableCellView::sizeHint(const QStyleOptionViewItem &, const QModelIndex &) const
{
    return {720, 56};
}

bool RQTableCellView::editorEvent(QEvent *event, QAbstractItemModel *model, const QStyleOptionViewItem &option,
                                  const QModelIndex &index)
{
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}
