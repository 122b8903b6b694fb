// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What a compositor tells of its desktop, put into one global space: its outputs with their connector names and
// frames, the focused window, the pointer. Each compositor answers in its own terms: sway gives an output's frame
// in the layout's logical units; Hyprland gives its position in logical units but its size in device pixels, before
// its scale and rotation; Mutter gives a logical monitor's position and scale and the mode's pixels. Windows and
// the pointer are in the layout's logical units everywhere, which is the space the frames are brought into here.
//
// Not every compositor tells everything: sway tells no pointer, and KWin over D-Bus only the output it takes as
// active. The output the compositor names as the one the user is on then stands for the pointer, so that the
// resolver's order still holds: the display with most of the focused window, else that output, else the first.

#include <optional>
#include <string>
#include <vector>

#include "LumoraCore/ScreenMatching.h"
#include "LumoraCore/TargetResolver.h"

namespace Lumora {

struct CompositorOutput {
    std::string name;          // the compositor's output name, which is the connector's: "DP-1", "HDMI-A-1"
    std::string model;         // the EDID's monitor name, when told
    std::string serialNumber;  // the EDID's serial, when told
    Rect area;                 // the position in the layout; the size as the compositor gives it
    bool sizeInPixels = false; // the size is in device pixels: divided by the scale, swapped when quarter-turned
    double scale = 1.0;
    bool quarterTurned = false;
    bool active = false;       // the output the compositor says the user is on (focused, active)
};

struct CompositorAnswers {
    std::vector<CompositorOutput> outputs;
    std::optional<Rect> focusedWindow;  // in the layout's logical units
    std::optional<Point> pointer;       // likewise
};

struct DesktopView {
    std::vector<ScreenIdentity> screens;  // one per output, in the compositor's order
    std::optional<Rect> focusedWindow;
    std::optional<Point> pointer;  // nothing: neither told nor stood for by an active output
};

namespace DesktopLayout {

// The frame an output covers in the layout's logical units.
Rect logicalFrame(const CompositorOutput& output);

// The answers in one space. Without a pointer, the centre of the active output stands for it.
DesktopView view(const CompositorAnswers& answers);

}  // namespace DesktopLayout
}  // namespace Lumora
