#pragma once
// Which displays can be driven, and through what: every paired external monitor with a DDC backend, in the
// online order, then every built-in panel with the internal backend. Answered from scratch on every call: new
// service objects, new backends. Blocks for one walk of the DRM connectors; callable from any thread.

#include <vector>

#include "Lumora/DDC/DisplayInfo.h"

namespace Lumora {

struct DisplayEnumerator {
    static std::vector<DisplayInfo> allDisplays();
};

}  // namespace Lumora
