#pragma once

#include "engine/VXLoudnessPicture.h"

#include <QWidget>

// The loudness picture of the selected row, under the list: the engine's
// picture in the window's colours, or a hint while the row is not measured.
class RQLoudnessView : public QWidget {
    Q_OBJECT
public:
    explicit RQLoudnessView(QWidget *parent = nullptr);
    // A data with an unmeasured input shows the hint.
    void setPicture(const VXLoudnessPictureData &data);
    const VXLoudnessPictureData &picture() const { return m_data; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    VXLoudnessPictureData m_data;
};
