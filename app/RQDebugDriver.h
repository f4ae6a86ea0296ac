#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class AppDelegate;

// Hidden command-line flags that drive the window without a user, for
// demonstrations and screenshots: --import PATH (repeatable), --recursive,
// --output-folder DIR (this run only, not remembered), --gain,
// --screenshot FILE (grab the window once everything has ended),
// --quit-when-done and --quit-after MSECS (the menu's Quit, whatever runs).
class RQDebugDriver : public QObject {
    Q_OBJECT
public:
    explicit RQDebugDriver(AppDelegate *delegate);
    // False on a malformed command line (the message is on standard error).
    bool start(const QStringList &arguments);

private:
    void importDone();
    void checkGainDone();
    void finish();

    AppDelegate *m_delegate;
    bool m_gain = false;
    bool m_gaining = false;
    bool m_quit = false;
    QString m_screenshot;
};
