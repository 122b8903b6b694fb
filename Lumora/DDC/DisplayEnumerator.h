// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Which displays can be driven, and through what: every external monitor that has a DDC channel with a DDC
// backend, in the online order, then every built-in panel with the internal backend. Answered from scratch on
// every call: new service objects, new backends. Callable from any thread.
//
// A monitor's channel: its connector's own (the `ddc` link or DisplayPort AUX adapter), which serves that display
// and no other. Only for the active external displays without one are the display adapters that no connector owns
// searched (MST ports, NVIDIA's buses): their EDID is read at 0x50 without writing, and they are paired with those
// displays by EDID identity. Blocks for one walk of the DRM connectors, plus two EDID reads per unowned display
// adapter when there is a display to search for.

#include <vector>

#include "Lumora/DDC/DisplayInfo.h"

namespace Lumora {

struct DisplayEnumerator {
    static std::vector<DisplayInfo> allDisplays();
};

}  // namespace Lumora
