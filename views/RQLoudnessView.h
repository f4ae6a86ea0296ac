#pragma once

#include "engine/VXLoudnessPicture.h"

#include <QImage>
#include <QList>
#include <QWidget>
#include <cmath>

class QAction;

// The loudness picture of the selected row, under the list: the engine's
// picture in the window's colours, or a hint while the row is not measured.
// Controls handed to it (playing) stand in a strip at its left; a playhead
// runs over the picture, and a click in it asks to hear from there.
class RQLoudnessView : public QWidget {
    Q_OBJECT
    // Seconds from the file's start; NaN: none shown.
    Q_PROPERTY(double playhead READ playhead WRITE setPlayhead NOTIFY playheadChanged)
public:
    explicit RQLoudnessView(QWidget *parent = nullptr);
    // A data with an unmeasured input shows the hint.
    void setPicture(const VXLoudnessPictureData &data);
    const VXLoudnessPictureData &picture() const { return m_data; }
    // One button for each action, top to bottom, in the strip.
    void setControls(const QList<QAction *> &actions);
    double playhead() const { return m_playhead; }
    void setPlayhead(double seconds);
    // The time under a point of the view; NaN outside the picture's curves
    // or while nothing is measured.
    double secondsAt(const QPoint &point) const;

signals:
    void playheadChanged();
    // A click in the picture: the time clicked, in seconds from the start.
    void seekRequested(double seconds);

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;

private:
    QRect pictureRect() const;
    QRectF plotRect() const;

    VXLoudnessPictureData m_data;
    QWidget *m_controls = nullptr;
    double m_playhead = NAN;
    QImage m_image;  // the picture as last drawn; redrawn when the data or size change
};
