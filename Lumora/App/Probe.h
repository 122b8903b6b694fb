// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The diagnostic probe: lists every display with its kind and brightness on standard output and, with
// LUMORA_PROBE_SET, sets every display to one brightness. After the report, a "Note: " line for each reason a
// connected monitor is missing (no DDC channel, no permission on its channel, i2c-dev not loaded).
// Synchronous, on the calling thread, no GUI.

namespace Lumora {

struct Probe {
    static void run();
};

}  // namespace Lumora
