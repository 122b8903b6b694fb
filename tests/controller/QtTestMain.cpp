// SPDX-License-Identifier: GPL-3.0-or-later
// GoogleTest main with a QCoreApplication: the controller lives on a Qt event loop, which the tests pump.
#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
