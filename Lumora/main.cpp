// SPDX-License-Identifier: GPL-3.0-or-later
// The entry: the probe when LUMORA_PROBE is present (even empty), otherwise the tray application.

#include <cstdlib>

#include "Lumora/App/AppDelegate.h"
#include "Lumora/App/Probe.h"

int main(int argc, char** argv)
{
    if (std::getenv("LUMORA_PROBE") != nullptr) {
        Lumora::Probe::run();
        return 0;
    }
    return Lumora::AppDelegate::runApplication(argc, argv);
}
