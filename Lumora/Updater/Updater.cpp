// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Updater/Updater.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#ifndef LUMORA_PRIVATE_LIBDIR_FROM_BINDIR
#define LUMORA_PRIVATE_LIBDIR_FROM_BINDIR "../lib/lumora"
#endif

namespace Lumora {

namespace {

std::string trustedPrivateLibraryDirectory()
{
    const std::string directory = Updater::privateLibraryDirectory();
    if (directory.empty() || !Updater::isTrustedLocation(directory + "/" LUMORA_UPDATE_PLUGIN_FILE)) {
        return {};
    }
    return directory;
}

bool ownedByRootAndClosed(const struct stat& status)
{
    const bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    return status.st_uid == 0 && (sticky || (status.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

}  // namespace

Updater::Updater() : Updater(trustedPrivateLibraryDirectory()) {}

bool Updater::isTrustedLocation(const std::string& path)
{
    std::array<char, PATH_MAX> resolved{};
    if (::realpath(path.c_str(), resolved.data()) == nullptr) {
        return false;
    }
    std::string walk(resolved.data());
    struct stat status {};
    if (::stat(walk.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || !ownedByRootAndClosed(status)) {
        return false;
    }
    // Every directory above it, up to the root.
    while (walk.size() > 1) {
        const auto slash = walk.rfind('/');
        walk = slash == 0 ? std::string("/") : walk.substr(0, slash);
        if (::stat(walk.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || !ownedByRootAndClosed(status)) {
            return false;
        }
    }
    return true;
}

Updater::Updater(const std::string& libraryDirectory)
{
    if (libraryDirectory.empty()) {
        return;
    }
    const std::string path = libraryDirectory + "/" LUMORA_UPDATE_PLUGIN_FILE;
    // Loaded for good: the handle is not kept and the library is never closed.
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        return;
    }
    auto create = reinterpret_cast<LumoraUpdaterControllerCreateFn>(::dlsym(handle, LUMORA_UPDATER_CONTROLLER_CREATE));
    auto check = reinterpret_cast<LumoraUpdaterControllerCheckForUpdatesFn>(
        ::dlsym(handle, LUMORA_UPDATER_CONTROLLER_CHECK_FOR_UPDATES));
    if (create == nullptr || check == nullptr) {
        return;
    }
    controller_ = create(1, nullptr, nullptr);
    if (controller_ != nullptr) {
        checkForUpdates_ = check;
    }
}

void Updater::checkForUpdates()
{
    if (controller_ == nullptr || checkForUpdates_ == nullptr) {
        return;
    }
    checkForUpdates_(controller_, nullptr);
}

std::string Updater::privateLibraryDirectory()
{
    std::array<char, 4096> buffer{};
    const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (n <= 0) {
        return {};
    }
    std::string executable(buffer.data(), static_cast<std::size_t>(n));
    const auto slash = executable.rfind('/');
    if (slash == std::string::npos) {
        return {};
    }
    return executable.substr(0, slash) + "/" LUMORA_PRIVATE_LIBDIR_FROM_BINDIR;
}

}  // namespace Lumora
