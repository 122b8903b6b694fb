#include "Lumora/Updater/Updater.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>

#ifndef LUMORA_PRIVATE_LIBDIR_FROM_BINDIR
#define LUMORA_PRIVATE_LIBDIR_FROM_BINDIR "../lib/lumora"
#endif

namespace Lumora {

Updater::Updater() : Updater(privateLibraryDirectory()) {}

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
