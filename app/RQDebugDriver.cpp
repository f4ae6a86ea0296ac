#include "app/RQDebugDriver.h"

#include "app/AppDelegate.h"
#include "engine/VXGainState.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QListView>
#include <QMainWindow>
#include <QPainter>
#include <QPixmap>
#include <QTimer>
#include <QToolButton>
#include <cstdio>

RQDebugDriver::RQDebugDriver(AppDelegate *delegate) : QObject(delegate), m_delegate(delegate) {}

namespace {
// A non-negative whole number; -1 when absent, -2 when malformed.
int countValue(const QCommandLineParser &parser, const QString &option)
{
    if (!parser.isSet(option))
        return -1;
    bool ok = false;
    const int value = parser.value(option).toInt(&ok);
    return ok && value >= 0 ? value : -2;
}
}  // namespace

QList<QCommandLineOption> RQDebugDriver::options()
{
    QList<QCommandLineOption> options{
        QCommandLineOption(QStringLiteral("import"), QString(), QStringLiteral("path")),
        QCommandLineOption(QStringLiteral("recursive")),
        QCommandLineOption(QStringLiteral("output-folder"), QString(), QStringLiteral("dir")),
        QCommandLineOption(QStringLiteral("gain")),
        QCommandLineOption(QStringLiteral("screenshot"), QString(), QStringLiteral("file")),
        QCommandLineOption(QStringLiteral("screenshot-when-progress"), QString(), QStringLiteral("percent")),
        QCommandLineOption(QStringLiteral("screenshot-when-imported"), QString(), QStringLiteral("rows")),
        QCommandLineOption(QStringLiteral("popup"), QString(), QStringLiteral("row")),
        QCommandLineOption(QStringLiteral("quit-when-done")),
        QCommandLineOption(QStringLiteral("quit-after"), QString(), QStringLiteral("msecs")),
    };
    for (QCommandLineOption &option : options)
        option.setFlags(QCommandLineOption::HiddenFromHelp);
    return options;
}

bool RQDebugDriver::start(const QStringList &arguments)
{
    QCommandLineParser parser;
    const QList<QCommandLineOption> all = options();
    for (const QCommandLineOption &option : all)
        parser.addOption(option);
    // The window's own options and files are RQCommandLine's.
    parser.addOption(QCommandLineOption(QStringList{QStringLiteral("h"), QStringLiteral("help")}));
    parser.addOption(QCommandLineOption(QStringList{QStringLiteral("v"), QStringLiteral("version")}));
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return false;
    }
    const QString import = QStringLiteral("import"), recursive = QStringLiteral("recursive"),
                  folder = QStringLiteral("output-folder"), gain = QStringLiteral("gain"),
                  screenshot = QStringLiteral("screenshot"), whenProgress = QStringLiteral("screenshot-when-progress"),
                  whenImported = QStringLiteral("screenshot-when-imported"), popup = QStringLiteral("popup"),
                  quit = QStringLiteral("quit-when-done"), quitAfter = QStringLiteral("quit-after");
    m_whenProgress = countValue(parser, whenProgress);
    m_whenImported = countValue(parser, whenImported);
    m_popupRow = countValue(parser, popup);
    if (m_whenProgress == -2 || m_whenImported == -2 || m_popupRow == -2) {
        std::fprintf(stderr, "Expected a whole number for --screenshot-when-progress, "
                             "--screenshot-when-imported and --popup\n");
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
    if (m_whenImported >= 0)
        connect(m_delegate->audioGains(), &QAbstractItemModel::rowsInserted, this, &RQDebugDriver::checkImportCount);
    m_delegate->importAudioWithPaths(absolute, parser.isSet(recursive));
    return true;
}

void RQDebugDriver::importDone()
{
    if (m_shot)
        return;
    if (!m_gain) {
        finish();
        return;
    }
    connect(m_delegate->audioGains(), &QAbstractItemModel::dataChanged, this, &RQDebugDriver::checkGainDone);
    m_gaining = true;
    m_delegate->gainAudios();
    checkGainDone();
}

void RQDebugDriver::checkImportCount()
{
    // The veil must still be up, so the grab waits for a row count the
    // import has not finished with yet.
    if (m_shot || m_delegate->allowedImport() || m_delegate->audioGains()->count() < m_whenImported)
        return;
    shoot();
}

void RQDebugDriver::checkGainDone()
{
    if (!m_gaining || m_shot)
        return;
    // The batch as a whole: a finished row counts in full, a waiting one
    // not at all, so the grab catches rows at different stages.
    bool running = false;
    qint64 done = 0;
    const QList<VXAudioGainPtr> items = m_delegate->audioGains()->items();
    for (const VXAudioGainPtr &item : items) {
        running |= item->isRunning();
        if (item->state() == VXGainFinished)
            done += 100;
        else if (item->state() == VXGainRunning)
            done += qBound(qint64(0), item->retCode(), qint64(100));
    }
    if (running && m_whenProgress >= 0 && !items.isEmpty() && done >= qint64(m_whenProgress) * items.size()) {
        shoot();
        return;
    }
    if (running)
        return;
    m_gaining = false;
    finish();
}

void RQDebugDriver::finish()
{
    if (m_popupRow >= 0 && m_popupRow < m_delegate->audioGains()->count()) {
        QListView *list = m_delegate->tableView();
        const QModelIndex index = list->model()->index(m_popupRow, 0);
        list->scrollTo(index);
        const QRect anchor = RQTableCellView::layout(list->visualRect(index)).loudnessImgView;
        m_delegate->popupTargetLoudnessAdjustMenu(m_popupRow, anchor);
    }
    // Let the last rows repaint before the grab.
    QTimer::singleShot(500, this, &RQDebugDriver::shoot);
}

void RQDebugDriver::shoot()
{
    m_shot = true;
    if (!m_screenshot.isEmpty() && !grabWindow(m_delegate).save(m_screenshot))
        std::fprintf(stderr, "Cannot write %s\n", qPrintable(m_screenshot));
    if (m_quit)
        m_delegate->quitApplication();
}

QPixmap RQDebugDriver::grabWindow(AppDelegate *delegate)
{
    QMainWindow *main = delegate->window();
    QWidget *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window();
    if (!popup->isVisible())
        return main->grab();
    // The popup may hang past the window's edges: the canvas takes both,
    // on a backdrop darker than the window so its edge stays visible.
    const QRect mainRect(QPoint(0, 0), main->size());
    const QRect popupRect(main->mapFromGlobal(popup->pos()), popup->size());
    const int margin = 12;
    const QRect canvas = mainRect.united(popupRect.adjusted(-margin, -margin, margin, margin));
    const qreal ratio = main->devicePixelRatioF();
    QPixmap composed(canvas.size() * ratio);
    composed.setDevicePixelRatio(ratio);
    composed.fill(main->palette().color(QPalette::Window).darker(180));
    QPainter painter(&composed);
    painter.drawPixmap(mainRect.topLeft() - canvas.topLeft(), main->grab());
    painter.drawPixmap(popupRect.topLeft() - canvas.topLeft(), popup->grab());
    return composed;
}
