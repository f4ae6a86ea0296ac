#pragma once

#include <QWidget>

// The popup's frameless top-level window. It takes keyboard focus, and tells
// its controller when it stops being the active window so it can hide.
class RQMeunWindow : public QWidget {
    Q_OBJECT
public:
    explicit RQMeunWindow(QWidget *parent = nullptr);

signals:
    void resignedKey();
    // An arrow or page key pressed with no control taking it: steps to add.
    void stepRequested(int steps);
    // The window-closing key (Alt+F4) was pressed while the popup had the keyboard.
    void closeRequested();

protected:
    bool event(QEvent *event) override;
    void changeEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
};
