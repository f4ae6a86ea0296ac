#pragma once

class QWidget;

// What assistive technology is told beyond what Qt gives by itself.
namespace RQAccessibility {

// Puts the popup in the window's accessibility tree while it is shown. Qt
// leaves popup windows out of the application's children, so a screen
// reader walking the tree would never reach the slider or the boxes.
void attachPopup(QWidget *window, QWidget *popup);

} // namespace RQAccessibility
