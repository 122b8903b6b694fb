// SPDX-License-Identifier: GPL-3.0-or-later
// Places on disk Lumora relies on, none that someone else could have prepared: the single-instance lock in the
// session's runtime directory, else a private directory of the user's own; an update plugin only where nobody but root
// can change it. And the updater with the test plugin, complete or not, and without one.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"
#include "Lumora/Updater/Updater.h"

namespace fs = std::filesystem;
using Lumora::SingleInstance::lockPath;

namespace {

const fs::path scratch = fs::temp_directory_path() / ("lumora-ui-" + std::to_string(::getpid()));

// `directory`, made afresh (whatever was there goes) with `mode`.
void made(const fs::path& directory, mode_t mode)
{
    fs::remove_all(directory);
    fs::create_directories(directory);
    ::chmod(directory.c_str(), mode);
}

}  // namespace

TEST(SingleInstance, LockInTheRuntimeDirectoryElseInAPrivateDirectoryOfTheUsersOwn)
{
    const fs::path own = scratch / ("lumora-" + std::to_string(::getuid()));
    const auto ownMade = [&](mode_t mode) { return [&, mode] { made(own, mode); }; };
    // `prepare` puts what is at <parent>/lumora-<uid> beforehand; usable: a lock path under it.
    const struct { const char* what; const char* runtime; std::function<void()> prepare; bool usable; } cases[] = {
        {"nothing there: made 0700", nullptr, [] {}, true},
        {"a relative runtime directory counts as none", "run/user", [] {}, true},
        {"there already, 0700", nullptr, ownMade(0700), true},
        {"open to the group", nullptr, ownMade(0770), false},
        {"open to everybody", nullptr, ownMade(0777), false},
        {"someone else's, however private (only root can give it away)", nullptr,
         [&] { made(own, 0700); (void)::chown(own.c_str(), 65534, 65534); }, ::getuid() != 0},
        {"a symbolic link to a private directory", nullptr,
         [&] { made(scratch / "elsewhere", 0700); fs::create_directory_symlink(scratch / "elsewhere", own); }, false},
        {"a file", nullptr, [&] { std::ofstream(own.string()) << "x"; }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        made(scratch, 0755);
        c.prepare();
        const auto path = lockPath(c.runtime, scratch.string());
        EXPECT_EQ(path.has_value(), c.usable);
        if (c.usable) {
            EXPECT_EQ(*path, (own / "lumora.lock").string());
            struct stat status {};
            ASSERT_EQ(::lstat(own.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & (S_IFMT | 0777), S_IFDIR | 0700U) << "a private directory";
        }
    }
    EXPECT_EQ(lockPath("/run/user/1000", scratch), std::optional<std::string>("/run/user/1000/lumora.lock"));
    fs::remove_all(scratch);
}

TEST(Updater, APluginIsTrustedOnlyWhereNobodyButRootCanChangeIt)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to make directories owned by root and by others";
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
    const fs::path plugin = scratch / "lib" / "liblumora-update.so", link = scratch / "closed" / "liblumora-update.so";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        made(scratch, 0755);
        made(scratch / "lib", c.directory);
        made(scratch / "closed", 0755);
        std::ofstream(plugin.string()) << "x";
        ::chmod(plugin.c_str(), c.file);
        ASSERT_EQ(c.ownedByOther ? ::chown(plugin.c_str(), 65534, 65534) : 0, 0);
        fs::create_symlink(plugin, link);
        EXPECT_EQ(Lumora::Updater::isTrustedLocation(plugin.string()), c.trusted);
        EXPECT_EQ(Lumora::Updater::isTrustedLocation(link.string()), c.trusted);
    }
    EXPECT_FALSE(Lumora::Updater::isTrustedLocation((scratch / "closed" / "missing.so").string()));
    fs::remove_all(scratch);
}

TEST(Updater, OneStartedControllerAndEachCheckForwardedOnlyWithACompletePlugin)
{
    // calls: what the plugin saw, the construction, then the two checks.
    const struct { const char* variant; bool available; const char* calls; } cases[] = {
        {"none", false, ""}, {"without-check", false, ""}, {"create-fails", false, "create 1 0\n"},
        {"complete", true, "create 1 0\ncheck 0\ncheck 0\n"}};
    made(scratch, 0755);
    const fs::path log = scratch / "update.log";
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
    ::unsetenv("LUMORA_TEST_UPDATE_LOG");
    fs::remove_all(scratch);
}
