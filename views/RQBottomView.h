#pragma once

#include <QWidget>

// The bar along the bottom of the main window. Its controls are laid out by
// the window; the bar paints its background, its top line, the dividers
// beside its direct child named "folderView", and a frame around that child.
class RQBottomView : public QWidget {
    Q_OBJECT
public:
    explicit RQBottomView(QWidget *parent = nullptr);

    // The folder child's geometry moved up by one point, or an empty rect.
    QRect frameOfFolderView() const;

protected:
    void paintEvent(QPaintEvent *event) override;
    void childEvent(QChildEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
};
