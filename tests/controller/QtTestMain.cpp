// SPDX-License-Identifier: GPL-3.0-or-later
// GoogleTest main for the controller's tests: the controller lives on a Qt event loop, so the tests run on the
// thread of a QCoreApplication and pump its loop while they wait.

#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
