#pragma once

#include <QWidget>

class RQGuideView : public QWidget {
    Q_OBJECT
public:
    explicit RQGuideView(QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
