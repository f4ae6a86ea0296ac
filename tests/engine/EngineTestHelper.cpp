// The other process of the placement tests.
//   replace-loop TARGET A B   replaces TARGET with copies of A and B in turn,
//                             forever, printing a line after the first one.
//   hold-temp                 puts a file in its temporary directory, prints
//                             its path and waits to be killed.
#include "engine/VXAudioGain.h"
#include "engine/VXPlacement.h"
#include "engine/VXTempDir.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 5 && args[1] == QLatin1String("replace-loop")) {
        for (long i = 0;; ++i) {
            const QString temp = VXTempDir::reserveFile(QStringLiteral("loop"), QStringLiteral("wav"));
            QFile::remove(temp);
            if (temp.isEmpty() || !QFile::copy(args[3 + i % 2], temp))
                return 2;
            if (!VXPlacement::replaceFile(temp, args[2]).ok())
                return 3;
            if (i == 0) {
                std::puts("replaced");
                std::fflush(stdout);
            }
        }
    }
    if (args.size() == 2 && args[1] == QLatin1String("hold-temp")) {
        const QString path = QDir(VXAudioGain::temporaryDirectory()).filePath(QStringLiteral("held.wav"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return 2;
        file.close();
        std::printf("%s\n", QFile::encodeName(path).constData());
        std::fflush(stdout);
        for (;;)
            ::pause();
    }
    return 1;
}
