#include "app/RQDebugDriver.h"

#include "app/AppDelegate.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QMainWindow>
#include <QPixmap>
#include <QTimer>
#include <QToolButton>
#include <cstdio>

RQDebugDriver::RQDebugDriver(AppDelegate *delegate) : QObject(delegate), m_delegate(delegate) {}

bool RQDebugDriver::start(const QStringList &arguments)
{
    QCommandLineParser parser;
    const QCommandLineOption import(QStringLiteral("import"), QString(), QStringLiteral("path"));
    const QCommandLineOption recursive(QStringLiteral("recursive"));
    const QCommandLineOption folder(QStringLiteral("output-folder"), QString(), QStringLiteral("dir"));
    const QCommandLineOption gain(QStringLiteral("gain"));
    const QCommandLineOption screenshot(QStringLiteral("screenshot"), QString(), QStringLiteral("file"));
    const QCommandLineOption quit(QStringLiteral("quit-when-done"));
    const QCommandLineOption quitAfter(QStringLiteral("quit-after"), QString(), QStringLiteral("msecs"));
    for (const auto &option : {import, recursive, folder, gain, screenshot, quit, quitAfter})
        parser.addOption(option);
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return false;
    }
    m_gain = parser.isSet(gain);
    m_quit = parser.isSet(quit);
    m_screenshot = parser.value(screenshot);
    if (parser.isSet(quitAfter))
        QTimer::singleShot(parser.value(quitAfter).toInt(), m_delegate, &AppDelegate::quitApplication);
    if (parser.isSet(folder)) {
        m_delegate->setOutFolder(QDir(parser.value(folder)).absolutePath());
        m_delegate->btnActiveFolder()->setVisible(true);
    }
    const QStringList paths = parser.values(import);
    if (paths.isEmpty()) {
        if (m_gain || m_quit || !m_screenshot.isEmpty())
            QTimer::singleShot(0, this, &RQDebugDriver::importDone);
        return true;
    }
    QStringList absolute;
    for (const QString &path : paths)
        absolute << QDir(path).absolutePath();
    connect(m_delegate, &AppDelegate::importFinished, this, &RQDebugDriver::importDone,
            Qt::SingleShotConnection);
    m_delegate->importAudioWithPaths(absolute, parser.isSet(recursive));
    return true;
}

void RQDebugDriver::importDone()
{
    if (!m_gain) {
        finish();
        return;
    }
    connect(m_delegate->audioGains(), &QAbstractItemModel::dataChanged, this, &RQDebugDriver::checkGainDone);
    m_gaining = true;
    m_delegate->gainAudios();
    checkGainDone();
}

void RQDebugDriver::checkGainDone()
{
    if (!m_gaining)
        return;
    for (const VXAudioGainPtr &item : m_delegate->audioGains()->items()) {
        if (item->isRunning())
            return;
    }
    m_gaining = false;
    finish();
}

void RQDebugDriver::finish()
{
    // Let the last rows repaint before the grab.
    QTimer::singleShot(500, this, [this] {
        if (!m_screenshot.isEmpty() && !m_delegate->window()->grab().save(m_screenshot))
            std::fprintf(stderr, "Cannot write %s\n", qPrintable(m_screenshot));
        if (m_quit)
            m_delegate->quitApplication();
    });
}
