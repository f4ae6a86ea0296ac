#include "engine/VXAudioGain.h"
#include "engine/codec/VXWorker.h"

#include <QFile>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // Measurements kept in a folder of this run's own, however the tests
    // are started; never in the user's cache.
    QTemporaryDir cacheHome;
    qputenv("XDG_CACHE_HOME", QFile::encodeName(cacheHome.path()));
    // A GUI application: the state image and the artwork are drawn, and jobs
    // report to this (main) thread.
    QGuiApplication app(argc, argv);
    // Jobs run their codec work in the worker, as the programs do.
    if (!vx::useWorkerProcess())
        return 1;
    ::testing::InitGoogleTest(&argc, argv);
    const int failed = RUN_ALL_TESTS();
    // Failed and cancelled jobs leave temporary files, as the application's.
    VXAudioGain::cleanCache();
    return failed;
}
