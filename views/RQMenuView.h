#pragma once

#include <QWidget>

// The popup's content view: the row background with a one-point border.
class RQMenuView : public QWidget {
    Q_OBJECT
public:
    explicit RQMenuView(QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
