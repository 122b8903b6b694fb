// SPDX-License-Identifier: GPL-3.0-or-later
// The updater with the test plugin, complete or not, in the directory it looks in, and without one; and where a
// plugin may be loaded from: only places nobody but root can change.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Lumora/Updater/Updater.h"

namespace fs = std::filesystem;

TEST(Updater, OneStartedControllerAndEachCheckForwardedOnlyWithACompletePlugin)
{
    // calls: what the plugin saw, the construction, then the two checks.
    const struct { const char* variant; bool available; const char* calls; } cases[] = {
        {"none", false, ""},
        {"without-check", false, ""},
        {"create-fails", false, "create 1 0\n"},
        {"complete", true, "create 1 0\ncheck 0\ncheck 0\n"}};
    const auto log = fs::temp_directory_path() / ("lumora-ui-update-" + std::to_string(::getpid()));
    ::setenv("LUMORA_TEST_UPDATE_LOG", log.c_str(), 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.variant);
        fs::remove(log);
        Lumora::Updater updater(std::string(TEST_PLUGIN_ROOT "/") + c.variant);
        EXPECT_EQ(updater.isAvailable(), c.available);
        updater.checkForUpdates();
        updater.checkForUpdates();
        std::ostringstream calls;
        calls << std::ifstream(log).rdbuf();
        EXPECT_EQ(calls.str(), c.calls);
    }
    fs::remove(log);
    ::unsetenv("LUMORA_TEST_UPDATE_LOG");
}

TEST(Updater, APluginIsTrustedOnlyWhereNobodyButRootCanChangeIt)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to make directories owned by root and by others";
    const fs::path root = fs::temp_directory_path() / ("lumora-trust-" + std::to_string(::getpid()));
    // directory: the plugin's (its parent is 0755).
    const struct { const char* what; mode_t directory, file; bool ownedByOther, trusted; } cases[] = {
        {"root's, closed", 0755, 0644, false, true},
        {"file writable by the group", 0755, 0664, false, false},
        {"file writable by everybody", 0755, 0646, false, false},
        {"directory writable by the group", 0775, 0644, false, false},
        {"directory writable by everybody", 0777, 0644, false, false},
        {"directory writable by everybody, sticky", 01777, 0644, false, true},
        {"file owned by someone else", 0755, 0644, true, false},
    };
    // Each case also through a link in a closed directory: links are followed to what they name.
    const fs::path plugin = root / "lib" / "liblumora-update.so", link = root / "closed" / "liblumora-update.so";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root);
        fs::create_directories(root / "lib");
        fs::create_directories(root / "closed");
        ::chmod(root.c_str(), 0755);
        ::chmod((root / "closed").c_str(), 0755);
        ::chmod((root / "lib").c_str(), c.directory);
        std::ofstream(plugin.string()) << "x";
        ::chmod(plugin.c_str(), c.file);
        ASSERT_EQ(c.ownedByOther ? ::chown(plugin.c_str(), 65534, 65534) : 0, 0);
        fs::create_symlink(plugin, link);
        EXPECT_EQ(Lumora::Updater::isTrustedLocation(plugin.string()), c.trusted);
        EXPECT_EQ(Lumora::Updater::isTrustedLocation(link.string()), c.trusted);
    }
    EXPECT_FALSE(Lumora::Updater::isTrustedLocation((root / "closed" / "missing.so").string()));
    fs::remove_all(root);
}
