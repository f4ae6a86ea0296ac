#include "app/RQOutputFolderController.h"

#include "app/RQAppSettings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QUrl>

RQOutputFolderController::RQOutputFolderController(QObject *parent) : QObject(parent)
{
    m_reveal = [this](const QString &folder) { revealFolder(folder); };
}

void RQOutputFolderController::setOutFolder(const QString &folder)
{
    if (m_outFolder == folder)
        return;
    m_outFolder = folder;
    emit outFolderChanged();
}

void RQOutputFolderController::setReplaceOriginalFile(bool replace)
{
    if (m_replaceOriginalFile == replace)
        return;
    m_replaceOriginalFile = replace;
    emit replaceOriginalFileChanged();
}

void RQOutputFolderController::choose(const QString &folder)
{
    setOutFolder(QDir::cleanPath(QFileInfo(folder).absoluteFilePath()));
    saveUserSelectedURL(m_outFolder);
}

void RQOutputFolderController::saveUserSelectedURL(const QString &folder)
{
    // A folder that cannot be stored is still used for this run.
    RQAppSettings::setUserSelectedOutFolder(folder);
}

QString RQOutputFolderController::userSelectOutFolder()
{
    return RQAppSettings::userSelectedOutFolder();
}

void RQOutputFolderController::reveal()
{
    if (m_outFolder.isNull())
        return;
    if (m_reveal)
        m_reveal(m_outFolder);
}

void RQOutputFolderController::revealFolder(const QString &folder)
{
    const QUrl url = QUrl::fromLocalFile(folder);
    // With nothing to show the folder, the click must not pass in silence.
    const QPointer<RQOutputFolderController> self(this);
    const auto open = [self, url, folder] {
        if (!QDesktopServices::openUrl(url) && self)
            emit self->alertRequested(tr("Cannot show the output folder"),
                                      tr("No file manager is available to show %1.").arg(folder));
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        open();
        return;
    }
    // Asynchronous: a file manager that is slow to start must not freeze
    // the window.
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{url.toString()} << QString();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [open](QDBusPendingCallWatcher *w) {
        if (w->isError())
            open();
        w->deleteLater();
    });
}
