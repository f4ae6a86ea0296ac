#include "app/RQSingleInstance.h"

#include <QDataStream>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QStandardPaths>
#include <unistd.h>

namespace {
// Both ends are this program; the version only keeps the format fixed.
constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_0;
constexpr char kAck = '1';
} // namespace

RQSingleInstance::RQSingleInstance(const QString &name, QObject *parent) : QObject(parent), m_name(name) {}

RQSingleInstance::~RQSingleInstance() = default;

QString RQSingleInstance::defaultName()
{
    QString dir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    // Without a runtime folder, a name of our own in the shared temporary one.
    if (dir.isEmpty())
        return QDir::tempPath() + QStringLiteral("/org.evenloud.Evenloud-%1").arg(::getuid());
    return dir + QStringLiteral("/org.evenloud.Evenloud");
}

bool RQSingleInstance::handOver(const QStringList &paths, int msecs)
{
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (!socket.waitForConnected(msecs))
        return false;
    QByteArray message;
    {
        QDataStream out(&message, QIODevice::WriteOnly);
        out.setVersion(kStreamVersion);
        out << paths;
    }
    socket.write(message);
    if (!socket.waitForBytesWritten(msecs))
        return false;
    // Only the window's answer says it took them: a window that is just
    // closing would otherwise swallow the files.
    while (socket.bytesAvailable() < 1) {
        if (!socket.waitForReadyRead(msecs))
            return false;
    }
    char ack = 0;
    return socket.getChar(&ack) && ack == kAck;
}

bool RQSingleInstance::listen()
{
    if (m_server)
        return m_server->isListening();
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    connect(m_server, &QLocalServer::newConnection, this, &RQSingleInstance::accept);
    if (m_server->listen(m_name))
        return true;
    // Nobody answered handOver(), so a socket file still there is stale.
    QLocalServer::removeServer(m_name);
    return m_server->listen(m_name);
}

void RQSingleInstance::accept()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            QDataStream in(socket);
            in.setVersion(kStreamVersion);
            in.startTransaction();
            QStringList paths;
            in >> paths;
            // The list may arrive in pieces; wait for the rest.
            if (!in.commitTransaction())
                return;
            socket->putChar(kAck);
            socket->disconnectFromServer();
            emit pathsReceived(paths);
        });
    }
}
