// SPDX-License-Identifier: GPL-3.0-or-later
// Where the single-instance lock lives: the session's runtime directory, else a private directory of the user's
// own that nobody else can have prepared.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"

namespace fs = std::filesystem;
using Lumora::SingleInstance::lockPath;

TEST(SingleInstance, LockInTheRuntimeDirectoryElseInAPrivateDirectoryOfTheUsersOwn)
{
    const fs::path parent = fs::temp_directory_path() / ("lumora-lock-test-" + std::to_string(::getpid()));
    const fs::path own = parent / ("lumora-" + std::to_string(::getuid()));
    const auto made = [](const fs::path& path, mode_t mode) {
        fs::create_directory(path);
        ::chmod(path.c_str(), mode);
    };
    // `prepare` puts what is at <parent>/lumora-<uid> beforehand; usable: a lock path under it.
    const struct { const char* what; const char* runtime; std::function<void()> prepare; bool usable; } cases[] = {
        {"nothing there: made 0700", nullptr, [] {}, true},
        {"a relative runtime directory counts as none", "run/user", [] {}, true},
        {"there already, 0700", nullptr, [&] { made(own, 0700); }, true},
        {"open to the group", nullptr, [&] { made(own, 0770); }, false},
        {"open to everybody", nullptr, [&] { made(own, 0777); }, false},
        {"someone else's, however private (only root can give it away)", nullptr,
         [&] { made(own, 0700); (void)::chown(own.c_str(), 65534, 65534); }, ::getuid() != 0},
        {"a symbolic link to a private directory", nullptr,
         [&] { made(parent / "elsewhere", 0700); fs::create_directory_symlink(parent / "elsewhere", own); }, false},
        {"a file", nullptr, [&] { std::ofstream(own.string()) << "x"; }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(parent);
        fs::create_directories(parent);
        c.prepare();
        const auto path = lockPath(c.runtime, parent.string());
        EXPECT_EQ(path.has_value(), c.usable);
        if (c.usable) {
            EXPECT_EQ(*path, (own / "lumora.lock").string());
            struct stat status {};
            ASSERT_EQ(::lstat(own.c_str(), &status), 0);
            EXPECT_TRUE(S_ISDIR(status.st_mode));
            EXPECT_EQ(status.st_mode & 0777, 0700U);
        }
    }
    EXPECT_EQ(lockPath("/run/user/1000", parent.string()), std::optional<std::string>("/run/user/1000/lumora.lock"));
    fs::remove_all(parent);
}
