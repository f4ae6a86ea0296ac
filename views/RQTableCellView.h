#pragma once

#include <QPersistentModelIndex>
#include <QPointer>
#include <QStyledItemDelegate>

class QAbstractItemView;

// Paints one row of the audio list: background by selection, separator,
// cover art, name, size, duration, the target-loudness button and the state
// image, with an amber dot on the success mark when the gain stopped at the
// true-peak ceiling. Reads the row's data through VXAudioGainList roles.
class RQTableCellView : public QStyledItemDelegate {
    Q_OBJECT
public:
    // Where each part of a row goes, in the coordinates of the row's rect.
    struct Layout {
        QRect art;
        QRect name;
        QRect info;
        QRect loudnessImgView;
        QRect edtTargetLoudness;
        QRect state;
    };
    static constexpr int kRowHeight = 64;
    static Layout layout(const QRect &row);

    explicit RQTableCellView(QObject *parent = nullptr);

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    bool editorEvent(QEvent *event, QAbstractItemModel *model, const QStyleOptionViewItem &option,
                     const QModelIndex &index) override;
    // Over the target field: the target in LUFS. Over the state image of an
    // ended row: the outcome in words (the reason, for a failure). Elsewhere
    // the model's tooltip.
    bool helpEvent(QHelpEvent *event, QAbstractItemView *view, const QStyleOptionViewItem &option,
                   const QModelIndex &index) override;

signals:
    // The row's target-loudness button was pressed; anchor is the loudness
    // image's rectangle in the list's viewport coordinates.
    void targetLoudnessClicked(int row, const QRect &anchor);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void watchView(const QWidget *widget) const;
    bool activateFromKey(QAbstractItemView *view, const QModelIndex &index, QEvent *event);
    void repaintRow(const QStyleOptionViewItem &option) const;

    QPersistentModelIndex m_pressed;
    // The list whose Enter/Return keys reach the button (found when first painted).
    mutable QPointer<QAbstractItemView> m_view;
    mutable QPointer<QWidget> m_viewport;
    // The list's identity for the filter, compared without touching the
    // object (it may be half destroyed when its last events arrive).
    mutable const QObject *m_viewId = nullptr;
};
