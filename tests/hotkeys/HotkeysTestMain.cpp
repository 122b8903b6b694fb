// The brightness keys' tests: a QApplication on Qt's offscreen platform with three screens named and laid out like
// the default desk's connectors (eDP-1 on the left, DP-1 in the middle, HDMI-A-1 on the right), settings in a
// private directory, and a stand-in for pkexec on PATH that records what it was asked to run instead of asking
// for a password (the permission flow's outcome is seen through the device nodes, which the tests control).

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

#include "HotkeysTestEnvironment.h"

namespace LumoraTest {

QString pkexecLog;

}  // namespace LumoraTest

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

    const QString bin = home.filePath(QStringLiteral("bin"));
    QDir(home.path()).mkpath(QStringLiteral("bin"));
    LumoraTest::pkexecLog = home.filePath(QStringLiteral("pkexec.log"));
    QFile pkexec(bin + QStringLiteral("/pkexec"));
    pkexec.open(QIODevice::WriteOnly);
    pkexec.write(QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\n").arg(LumoraTest::pkexecLog).toUtf8());
    pkexec.close();
    pkexec.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));

    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
