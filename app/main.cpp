#include "app/AppDelegate.h"
#include "app/RQCommandLine.h"
#include "app/RQDebugDriver.h"
#include "app/RQPalette.h"
#include "app/RQSingleInstance.h"
#include "app/RQTranslations.h"
#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorker.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QMainWindow>
#include <cstdio>

int main(int argc, char *argv[])
{
    vx::configureProcess();
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    // Before the application object: help and version need no display.
    const RQCommandLine command = RQCommandLine::parse(arguments, QDir::currentPath());
    if (command.outcome != RQCommandLine::Run) {
        std::fputs(qPrintable(command.text), command.outcome == RQCommandLine::Error ? stderr : stdout);
        return command.outcome == RQCommandLine::Error ? 2 : 0;
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Evenloud"));
    QApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));
    QApplication::setOrganizationName(QStringLiteral("Evenloud"));
    QApplication::setOrganizationDomain(QStringLiteral("evenloud.org"));
    QApplication::setDesktopFileName(QStringLiteral("org.evenloud.Evenloud"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/evenloud.svg")));

    // A scripted run (the debug flags) keeps to itself.
    RQSingleInstance instance;
    if (!command.scripted) {
        if (instance.handOver(command.paths))
            return 0;
        instance.listen();
    }

    RQTranslations::install(app);
    RQPalette::applyDarkPalette(app);
    // A file that crashes a decoder fails alone; the window stays.
    vx::useWorkerProcess();

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    delegate.window()->show();
    QObject::connect(&instance, &RQSingleInstance::pathsReceived, &delegate, [&delegate](const QStringList &paths) {
        delegate.bringWindowForward();
        if (!paths.isEmpty())
            delegate.openPaths(paths);
    });
    if (!command.paths.isEmpty())
        delegate.openPaths(command.paths);

    RQDebugDriver driver(&delegate);
    if (!driver.start(QApplication::arguments()))
        return 2;
    return app.exec();
}
