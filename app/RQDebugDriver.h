#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QObject>
#include <QPixmap>
#include <QString>
#include <QStringList>

class AppDelegate;

// Hidden command-line flags that drive the window without a user, for
// demonstrations and screenshots: --import PATH (repeatable), --recursive,
// --output-folder DIR (this run only, not remembered), --gain,
// --screenshot FILE (grab the window once everything has ended),
// --quit-when-done and --quit-after MSECS (the menu's Quit, whatever runs).
// For pictures of work in progress, --screenshot-when-progress PERCENT (the
// batch as a whole) and --screenshot-when-imported ROWS take the grab early (then --quit-when-done
// quits right after it); --popup ROW opens the target popup under that row
// at the end, and the grab shows it where it sits on screen.
class RQDebugDriver : public QObject {
    Q_OBJECT
public:
    explicit RQDebugDriver(AppDelegate *delegate);
    // The flags above, hidden from --help.
    static QList<QCommandLineOption> options();
    // False on a malformed command line (the message is on standard error).
    bool start(const QStringList &arguments);

    // The main window with the target popup painted over it when it is open
    // (it is a window of its own, so a plain grab misses it).
    static QPixmap grabWindow(AppDelegate *delegate);

private:
    void importDone();
    void checkGainDone();
    void checkImportCount();
    void finish();
    void shoot();

    AppDelegate *m_delegate;
    bool m_gain = false;
    bool m_gaining = false;
    bool m_quit = false;
    bool m_shot = false;
    QString m_screenshot;
    int m_whenProgress = -1;
    int m_whenImported = -1;
    int m_popupRow = -1;
};
