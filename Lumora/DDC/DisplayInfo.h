// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

#include "Lumora/DDC/DisplayBackend.h"

namespace Lumora {

// One usable display as enumeration returns it. Copies share one backend.
struct DisplayInfo {
    std::uint32_t id = 0;
    std::string name;
    DisplayBackendRef backend;
};

}  // namespace Lumora
