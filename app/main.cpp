#include "app/AppDelegate.h"
#include "app/RQDebugDriver.h"
#include "app/RQPalette.h"
#include "engine/codec/VXWorker.h"

#include <QApplication>
#include <QIcon>
#include <QMainWindow>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Evenloud"));
    QApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));
    QApplication::setOrganizationName(QStringLiteral("Evenloud"));
    QApplication::setOrganizationDomain(QStringLiteral("evenloud.org"));
    QApplication::setDesktopFileName(QStringLiteral("evenloud"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/evenloud.svg")));
    RQPalette::applyDarkPalette(app);
    // A file that crashes a decoder fails alone; the window stays.
    vx::useWorkerProcess();

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    delegate.window()->show();

    RQDebugDriver driver(&delegate);
    if (!driver.start(QApplication::arguments()))
        return 2;
    return app.exec();
}
