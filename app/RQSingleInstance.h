#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QLocalServer;

// One window per user session: a later launch hands its files to the window
// already open, over a local socket in the user's runtime folder, and ends.
class RQSingleInstance : public QObject {
    Q_OBJECT
public:
    // name: the socket's path; the default is per user and session.
    explicit RQSingleInstance(const QString &name = defaultName(), QObject *parent = nullptr);
    ~RQSingleInstance() override;
    static QString defaultName();

    // True when a running window took the paths (an empty list only raises
    // it); the caller then ends. Blocks for at most about msecs.
    bool handOver(const QStringList &paths, int msecs = 5000);
    // Takes the socket, replacing one that a crashed window left behind.
    // False when it cannot: the window then runs on its own.
    bool listen();

signals:
    // A later launch's files (absolute paths), possibly none.
    void pathsReceived(const QStringList &paths);

private:
    void accept();
    QString m_name;
    QLocalServer *m_server = nullptr;
};
