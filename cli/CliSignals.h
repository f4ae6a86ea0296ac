#pragma once

#include <QObject>

#include <atomic>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a Qt signal on the thread that created the
// watcher (a self-pipe read by a QSocketNotifier), so the batch can cancel
// its jobs from the event loop rather than inside a signal handler.
class CliSignals : public QObject {
    Q_OBJECT
public:
    explicit CliSignals(QObject *parent = nullptr);
    ~CliSignals() override;

    // Set by the first interrupt, for work that runs before the event loop
    // (the folder walk and probing).
    static const std::atomic<bool> &pending();
    // 128 + the first signal's number (130 for SIGINT, 143 for SIGTERM), as
    // a shell reports a process that a signal ended.
    static int exitStatus();

signals:
    // count: how many interrupts have arrived so far (1 for the first).
    void interrupted(int count);

private:
    void drain();
    QSocketNotifier *m_notifier = nullptr;
    int m_count = 0;
};
