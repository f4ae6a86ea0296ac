// What the worker's cage costs: children forked bare and children that enter
// the sandbox before they end, timed in the same run, set against one file's
// measurement (the smallest piece of codec work a child does).
//   evenloud-sandbox-cost FILE
#include "engine/codec/VXLoudnessMeter.h"
#include "engine/codec/VXSandbox.h"

#include <QElapsedTimer>
#include <QString>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace {

double childrenMs(int count, bool caged, const QString &file)
{
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            if (caged)
                vx::enterSandbox(vx::grantFor({QStringLiteral("measure"), file}));
            _exit(0);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
    return double(clock.nsecsElapsed()) / 1e6 / count;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    const QString file = QString::fromLocal8Bit(argv[1]);
    constexpr int kChildren = 300;
    vx::prepareSandbox();  // as the worker server does before it forks
    childrenMs(20, true, file);  // warm up
    const double bare = childrenMs(kChildren, false, file);
    const double caged = childrenMs(kChildren, true, file);
    QElapsedTimer clock;
    clock.start();
    if (const VXResult<VXLoudness> measured = VXMeasureFile(file, VXMeasureTruePeak); !measured) {
        std::fprintf(stderr, "cannot measure %s: %s\n", argv[1], qPrintable(measured.reason()));
        return 1;
    }
    const double measure = double(clock.nsecsElapsed()) / 1e6;
    std::printf("child bare %.3f ms, caged %.3f ms: the cage costs %.3f ms per child\n", bare, caged, caged - bare);
    std::printf("one measurement of %s: %.1f ms; the cage adds %.2f%% to it (target < 2%%)\n", argv[1], measure,
                100.0 * (caged - bare) / measure);
    return 0;
}
