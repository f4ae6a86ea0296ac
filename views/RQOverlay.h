#pragma once

class QWidget;

// Makes overlay a child of target that covers it and follows its size, on
// top of its other children. For the guide and the import veil over the list.
void rqOverlay(QWidget *overlay, QWidget *target);
