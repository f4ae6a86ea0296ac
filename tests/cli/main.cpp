#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // The tool runs keep their measurements in a folder of this run's own,
    // however the tests are started; never in the user's cache.
    QTemporaryDir cacheHome;
    qputenv("XDG_CACHE_HOME", QFile::encodeName(cacheHome.path()));
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
