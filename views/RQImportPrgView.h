#pragma once

#include <QWidget>

class RQImportPrgView : public QWidget {
    Q_OBJECT
public:
    explicit RQImportPrgView(QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
