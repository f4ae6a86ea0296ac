// The other process of the placement tests.
//   replace-loop TARGET A B   replaces TARGET with copies of A and B in turn,
//                             forever, printing a line after the first one.
//   hold-temp                 puts a file in its temporary directory, prints
//                             its path and waits to be killed.
//   cache-store DB TAG N      stores N made-up entries of TAG into the cache
//                             DB from two threads and reads each back: 0 when
//                             all were kept and nothing was logged.
#include "CacheTestData.h"

#include "engine/VXAudioGain.h"
#include "engine/VXPlacement.h"
#include "engine/VXTempDir.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>

#include "engine/codec/VXLog.h"

namespace {

int storeEntries(const QString &db, qint64 tag, int n)
{
    VXMeasureCache::configure({VXMeasureCache::Location::File, db});
    std::atomic<int> logged{0};
    VXSetLogSink([&logged](const QString &line) {
        ++logged;
        std::fprintf(stderr, "%s\n", qPrintable(line));
    });
    auto fill = [&](int first) {
        for (int i = first; i < n; i += 2)
            VXMeasureCache::store(cachetest::key(tag, i), cachetest::figures(i));
    };
    std::thread other(fill, 1);
    fill(0);
    other.join();
    for (int i = 0; i < n; ++i) {
        const std::optional<vx::Measurement> m = VXMeasureCache::find(cachetest::key(tag, i), true);
        if (!m || m->loudness.integrated != cachetest::figures(i).loudness.integrated
            || m->loudness.steps != cachetest::figures(i).loudness.steps)
            return 4;
    }
    return logged.load() ? 3 : 0;
}

} // namespace

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
    if (args.size() == 5 && args[1] == QLatin1String("cache-store"))
        return storeEntries(args[2], args[3].toLongLong(), args[4].toInt());
    return 1;
}
