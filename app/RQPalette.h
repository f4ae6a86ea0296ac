#pragma once

#include <QColor>

class QApplication;
class QWidget;

// The app's dark look: one palette for every window, and the few colours
// the controller sets on single controls.
namespace RQPalette {

inline QColor background() { return {61, 57, 58}; }
inline QColor selectedRow() { return {53, 51, 52}; }
inline QColor lightTitle() { return {195, 195, 195}; }
inline QColor dimmedText() { return {132, 129, 128}; }

void applyDarkPalette(QApplication &app);
// Text colour of a button's or check box's title.
void setTitleColor(QWidget *widget, const QColor &color);
// Text colour of a line edit's or label's text.
void setTextColor(QWidget *widget, const QColor &color);

} // namespace RQPalette
