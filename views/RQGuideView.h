#pragma once

#include <QWidget>

// The guide picture shown while the list is empty: the image "gainGuide.png"
// centred at its natural size. It lets mouse and drop events through to the
// list beneath it.
class RQGuideView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString imageName READ imageName WRITE setImageName NOTIFY imageNameChanged)
public:
    explicit RQGuideView(QWidget *parent = nullptr);

    QString imageName() const { return m_imageName; }
    void setImageName(const QString &name);

public slots:
    // Visible exactly while the list holds no item.
    void setListEmpty(bool empty) { setVisible(empty); }

signals:
    void imageNameChanged();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QString m_imageName;
};
