// SPDX-License-Identifier: GPL-3.0-or-later
// lumora-keys: the brightness keys' system service (KeyService.h). Started by the system bus on the first attach.
//
//   lumora-keys [--idle-exit SECONDS]

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "LumoraKeys/KeyService.h"

int main(int argc, char** argv)
{
    Lumora::Keys::KeyServiceOptions options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--idle-exit") == 0 && i + 1 < argc) {
            char* end = nullptr;
            const double seconds = std::strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || seconds < 0 || seconds > 86400) {
                std::fprintf(stderr, "lumora-keys: --idle-exit takes a number of seconds, not '%s'\n", argv[i]);
                return 2;
            }
            options.idleExit = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
        } else {
            std::fprintf(stderr, "usage: lumora-keys [--idle-exit SECONDS]\n");
            return 2;
        }
    }
    return Lumora::Keys::runKeyService(options);
}
