// SPDX-License-Identifier: GPL-3.0-or-later
// The display in use from each compositor's answers as recorded from sway 1.7, KWin 5.27 and GNOME Shell 43 headless
// (Hyprland's from its documented IPC), read, brought into one space, matched by name and resolved as Lumora does.

#include <gtest/gtest.h>
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/GnomeShellDesktop.h"
#include "Lumora/Platform/Linux/Desktop/HyprlandDesktop.h"
#include "Lumora/Platform/Linux/Desktop/KWinDesktop.h"
#include "Lumora/Platform/Linux/Desktop/SwayDesktop.h"
#include "LumoraCore/ScreenMatching.h"

using namespace Lumora;

namespace {

// sway 1.7: HEADLESS-2 at scale 2, above and left of HEADLESS-1 and focused; a floating terminal mostly on it.
const QByteArray swayOutputs = R"([
 {"name": "HEADLESS-1", "make": "headless", "model": "headless", "serial": "", "active": true, "focused": false,
  "scale": 1.0, "rect": {"x": 0, "y": 0, "width": 1280, "height": 800}},
 {"name": "HEADLESS-2", "make": "headless", "model": "headless", "serial": "", "active": true, "focused": true,
  "scale": 2.0, "rect": {"x": -640, "y": -400, "width": 640, "height": 400}}])";
const QByteArray swayTree = R"({"type": "root", "name": "root", "focused": false,
 "rect": {"x": -640, "y": -400, "width": 1920, "height": 1200}, "nodes": [
 {"type": "output", "name": "__i3", "focused": false, "rect": {"x": -640, "y": -400, "width": 1920, "height": 1200},
  "nodes": [{"type": "workspace", "name": "__i3_scratch", "focused": false,
             "rect": {"x": -640, "y": -400, "width": 1920, "height": 1200}}]},
 {"type": "output", "name": "HEADLESS-1", "focused": false, "rect": {"x": 0, "y": 0, "width": 1280, "height": 800},
  "nodes": [{"type": "workspace", "name": "1", "focused": false, "rect": {"x": 0, "y": 30, "width": 1280, "height": 770}}]},
 {"type": "output", "name": "HEADLESS-2", "focused": false, "rect": {"x": -640, "y": -400, "width": 640, "height": 400},
  "nodes": [{"type": "workspace", "name": "2", "focused": false, "rect": {"x": -640, "y": -370, "width": 640, "height": 370},
   "floating_nodes": [{"type": "floating_con", "name": "Wayland Terminal", "focused": true,
                       "rect": {"x": -691, "y": -413, "width": 742, "height": 427}}]}]}]})";
// The same desk with the focus on an empty workspace of HEADLESS-1: the workspace holds the focus, no window.
const QByteArray swayTreeNoWindow = R"({"type": "root", "focused": false, "nodes": [
 {"type": "output", "name": "HEADLESS-1", "focused": false, "rect": {"x": 0, "y": 0, "width": 1280, "height": 800},
  "nodes": [{"type": "workspace", "name": "1", "focused": true, "rect": {"x": 0, "y": 30, "width": 1280, "height": 770}}]}]})";
const QByteArray swayOutputsFocusOnOne = QByteArray(swayOutputs).replace(R"("focused": false,
  "scale": 1.0)", R"("focused": true, "scale": 1.0)").replace(R"("focused": true,
  "scale": 2.0)", R"("focused": false, "scale": 2.0)");

// Hyprland: DP-1 4K at scale 1.5 right of a quarter-turned HDMI-A-1 at scale 1, which sits at a negative position.
const QByteArray hyprMonitors = R"([
 {"id": 0, "name": "DP-1", "make": "Dell Inc.", "model": "DELL U2720Q", "serial": "ABC123", "width": 3840,
  "height": 2160, "x": 0, "y": 0, "scale": 1.50, "transform": 0, "focused": false, "disabled": false},
 {"id": 1, "name": "HDMI-A-1", "make": "LG", "model": "LG HDR 4K", "serial": "", "width": 1920, "height": 1080,
  "x": -1080, "y": -300, "scale": 1.00, "transform": 1, "focused": true, "disabled": false}])";
const QByteArray hyprWindowOnDP1 = R"({"address": "0x1", "mapped": true, "at": [-200, 100], "size": [1200, 800]})";
const QByteArray hyprCursorOnHDMI = R"({"x": -500, "y": 900})";

// GNOME Shell 43 headless: Meta-0 and Meta-1 side by side, in the physical layout (layout-mode 2) or the logical one.
GnomeShellDesktop::State gnome(bool physical, double scale)
{
    return {{{"Meta-0", "MetaVendor", "MetaVirtualMonitor", "0x00", 1280, 800},
             {"Meta-1", "MetaVendor", "MetaVirtualMonitor", "0x01", 1280, 800}},
            {{0, 0, scale, 0, {"Meta-0"}}, {physical ? 1280 : 1280 / scale, 0, scale, 0, {"Meta-1"}}},
            physical};
}

}  // namespace

TEST(CompositorAnswers, TheDisplayInUseFromWhatEachCompositorSays)
{
    const struct { const char* what; CompositorAnswers answers; const char* inUse; /* the connector chosen */ } cases[] = {
        {"sway: the focused window, mostly on the scaled output at a negative position",
         SwayDesktop::answers(swayOutputs, swayTree), "HEADLESS-2"},
        {"sway: no window focused: the focused output", SwayDesktop::answers(swayOutputsFocusOnOne, swayTreeNoWindow),
         "HEADLESS-1"},
        {"Hyprland: the window, on DP-1 at scale 1.5 (2560 logical wide)",
         HyprlandDesktop::answers(hyprMonitors, hyprWindowOnDP1, hyprCursorOnHDMI), "DP-1"},
        {"Hyprland: no window: the pointer, on the quarter-turned HDMI-A-1 (1080 x 1920 logical)",
         HyprlandDesktop::answers(hyprMonitors, "{}", hyprCursorOnHDMI), "HDMI-A-1"},
        {"Hyprland: no window, no pointer: the focused monitor",
         HyprlandDesktop::answers(hyprMonitors, "{}", ""), "HDMI-A-1"},
        {"GNOME: the extension's window on Meta-0",
         GnomeShellDesktop::answers(gnome(true, 1), Rect{268, 145, 742, 427}, Point{1500, 300}), "Meta-0"},
        {"GNOME: no window: the pointer on Meta-1", GnomeShellDesktop::answers(gnome(true, 1), {}, Point{1500, 300}),
         "Meta-1"},
        {"GNOME at scale 2 in the logical layout: Meta-1 begins at 640",
         GnomeShellDesktop::answers(gnome(false, 2), {}, Point{700, 300}), "Meta-1"},
    };
    for (const auto& c : cases) {
        const DesktopView view = DesktopLayout::view(c.answers);
        // The connectors named as the compositor names its outputs, each a display numbered by its place.
        std::vector<ConnectorIdentity> connectors;
        for (const ScreenIdentity& screen : view.screens)
            connectors.push_back({screen.name, {}});
        const std::vector<std::optional<Rect>> frames = ScreenMatching::framesFor(connectors, view.screens);
        std::vector<TargetResolver::Display> displays;
        for (std::size_t i = 0; i < frames.size(); ++i) {
            ASSERT_TRUE(frames[i]) << c.what << ": " << connectors[i].connectorName;
            displays.push_back({std::uint32_t(i), *frames[i], true});
        }
        const auto decision = TargetResolver::resolve(displays, view.focusedWindow, view.pointer.value_or(Point{}));
        ASSERT_TRUE(decision) << c.what;
        EXPECT_EQ(connectors[decision->displayID].connectorName, c.inUse) << c.what;
    }
}

TEST(CompositorAnswers, TheDesktopIsChosenFromWhatTheSessionSays)
{
    const struct { const char *swaySocket, *hyprland, *currentDesktop; bool wayland; const char* chosen; } cases[] = {
        {"/run/user/1000/sway-ipc.1000.42.sock", "", "sway", true, "sway"},
        {"", "v0.40_1700000000", "Hyprland", true, "Hyprland"},
        {"", "", "KDE", true, "KWin"},
        {"", "", "ubuntu:GNOME", true, "GNOME Shell"},
        {"", "", "GNOME-Flashback:GNOME", false, "X11"},  // GNOME on X11: the X server tells all
        {"", "", "GNOMEISH", true, "X11"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DesktopInputs::choose(c.swaySocket, c.hyprland, c.currentDesktop, c.wayland)->name(), c.chosen)
            << c.currentDesktop;
}

TEST(CompositorAnswers, KWinsOutputsAndTheScriptsWindow)
{
    // KWin 5.27's support information, as it began its screens on KWin started headless with two outputs here (the
    // rest of it, about compositing and effects, left out); a third output, switched off, added.
    const QString supportInformation = QStringLiteral(
        "Screens\n=======\nActive screen follows mouse:  yes\nNumber of Screens: 2\n\n"
        "Screen 0:\n---------\nName: Virtual-0\nEnabled: 1\nGeometry: 0,0,2560x800\nScale: 1\nRefresh Rate: 60000\n"
        "Adaptive Sync: incapable\n"
        "Screen 1:\n---------\nName: Virtual-1\nEnabled: 1\nGeometry: 2560,0,2560x800\nScale: 1\nRefresh Rate: 60000\n"
        "Adaptive Sync: incapable\n"
        "Screen 2:\n---------\nName: DP-2\nEnabled: 0\nGeometry: -1280,-200,1280x1024\nScale: 1\n\n"
        "Compositing\n===========\nCompositing is active\nGeometry: 1,2,3x4\n");
    const std::vector<CompositorOutput> outputs = KWinDesktop::outputs(supportInformation);
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_TRUE(outputs[0].name == "Virtual-0" && outputs[0].area == (Rect{0, 0, 2560, 800})) << outputs[0].name;
    EXPECT_TRUE(outputs[1].name == "Virtual-1" && outputs[1].area == (Rect{2560, 0, 2560, 800})) << outputs[1].name;

    EXPECT_EQ(KWinDesktop::window("2760 200 1480 520"), (Rect{2760, 200, 1480, 520}));
    EXPECT_EQ(KWinDesktop::window("-300.5 -20 640 480"), (Rect{-300.5, -20, 640, 480}));
    for (const char* refused : {"none", "10 10 0 480", "10 10 640", "a b c d"})
        EXPECT_EQ(KWinDesktop::window(QString::fromLatin1(refused)), std::nullopt) << refused;
}
