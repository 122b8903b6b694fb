#pragma once
// The diagnostic probe: lists every display with its kind and brightness on standard output and, with
// LUMORA_PROBE_SET, sets every display to one brightness. Synchronous, on the calling thread, no GUI.

namespace Lumora {

struct Probe {
    static void run();
};

}  // namespace Lumora
