// SPDX-License-Identifier: GPL-3.0-or-later
// The brightness keys' tests: a QApplication on Qt's offscreen platform with three screens named and laid out like
// the default desk's connectors (eDP-1 on the left, DP-1 in the middle, HDMI-A-1 on the right), settings in a
// private directory, and one private system bus for the whole run (Qt connects to the system bus once per
// process) where lumora-keys is started on demand, with stand-ins for logind and polkit.

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "HotkeysTestEnvironment.h"

LumoraTest::KeyServiceBus* LumoraTest::keyBus = nullptr;

int main(int argc, char** argv)
{
    QTemporaryDir home;
    QFile screens(home.filePath(QStringLiteral("screens.json")));
    screens.open(QIODevice::WriteOnly);
    screens.write(LumoraTest::deskScreensJson);
    screens.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + QFile::encodeName(screens.fileName()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(home.filePath(QStringLiteral("runtime"))));
    QDir(home.path()).mkpath(QStringLiteral("runtime"));
    QFile::setPermissions(home.filePath(QStringLiteral("runtime")), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    LumoraTest::KeyServiceBus bus;
    LumoraTest::keyBus = &bus;
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
