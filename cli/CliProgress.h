#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTimer>

#include <mutex>

// What the user sees while the batch runs, on standard error. On a terminal:
// one status line (files done and left, files a second, how many times real
// time, the time left) redrawn in place at most ten times a second, with
// finished files scrolling above it. Elsewhere (a pipe, a log file): one
// plain line when a file starts and when it ends. fileCount < 0: files
// arrive while it runs (a watched folder), and the status says how many
// were done.
class CliProgress : public QObject {
    Q_OBJECT
public:
    CliProgress(bool terminal, qint64 fileCount, QObject *parent = nullptr);
    ~CliProgress() override;

    // The folder a watch's status names.
    void setWatched(const QString &folder) { m_watched = folder; }

    void fileStarted(int id, const QString &name, quint64 duration);
    void fileProgress(int id, int percent);
    // audioSeconds: the length of the file's audio, for the pace.
    void fileEnded(int id, const QString &line, double audioSeconds);
    // Any thread: one line, printed above the bars.
    void message(const QString &line);
    // Removes the bars for good; later messages are plain lines.
    void finish();

private:
    struct Running {
        int percent = 0;
        qint64 number = 0;
    };
    void redraw();
    // Something to redraw: the timer runs only while there is.
    void changed();
    QString counter(qint64 number) const;
    QByteArray frame() const;
    void writeLocked(const QByteArray &text);

    const bool m_terminal;
    const qint64 m_fileCount;
    QString m_watched;
    QMap<int, Running> m_running;
    qint64 m_started = 0;
    qint64 m_ended = 0;
    double m_audioSeconds = 0;
    bool m_dirty = false;
    QTimer m_timer;
    QElapsedTimer m_clock;

    // Guards the terminal: the current frame and how many lines it covers,
    // so a message from any thread can lift the bars, print and put them back.
    std::mutex m_termLock;
    QByteArray m_frame;
    int m_frameLines = 0;
    bool m_finished = false;
};
