#include "engine/VXAudioGain.h"
#include "engine/VXMeasureCache.h"
#include "engine/codec/VXWorker.h"

#include <QGuiApplication>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // No measurement cache unless a test asks for one: whether a job's
    // first pass runs must not hang on how old its file has grown by then.
    VXMeasureCache::configure({VXMeasureCache::Location::Off, QString()});
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
