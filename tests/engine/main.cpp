#include <QGuiApplication>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // A GUI application: the state image and the artwork are drawn, and jobs
    // report to this (main) thread.
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
