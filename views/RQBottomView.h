#pragma once

#include <QWidget>

class RQBottomView : public QWidget {
    Q_OBJECT
public:
    explicit RQBottomView(QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
