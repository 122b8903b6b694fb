// Where a brightness key goes, from what the desktop tells: the active displays' frames (the window system's
// screens matched to the desk's DRM connectors by output name), the frame of the focused window with its
// decorations, and the cursor, all in the root window's pixels; and the display the resolver then picks. On an X
// server whose monitors are laid out side by side and stacked, two and three of them.
//
//   resolver_inputs --list              the layouts, one per line
//   resolver_inputs --monitors LAYOUT   the layout's monitors for `xrandr --setmonitor`: NAME=WxH+X+Y ...
//   resolver_inputs --layout LAYOUT     the tests for that layout (the X server must show those monitors)
//
// resolver-inputs.sh starts the X server and runs each layout; Qt reads the monitors when it connects.

#include <QApplication>
#include <QCursor>
#include <QScreen>
#include <QTest>
#include <QWidget>

#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "HotkeysTestEnvironment.h"
#include "Lumora/Hotkeys/DisplayInUse.h"
#include "Lumora/Platform/Linux/Desktop/Cursor.h"
#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"
#include "Lumora/Platform/Linux/Desktop/FocusedWindow.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace LumoraTest;
using Lumora::Rect;

namespace LumoraTest {
KeyServiceBus* keyBus = nullptr;  // the resolver's inputs need no key service
}

namespace {

struct Output {
    std::string connector;  // on the desk
    std::uint32_t id;       // its connector id, the display number
    bool ddc;               // a DDC/CI monitor (else a panel without one)
    std::string monitor;    // the window system's name for it
    Rect frame;
};

struct Layout {
    std::string name;
    std::vector<Output> outputs;  // in connector order (card0's connectors by name)
    Rect window;                  // a window mostly on `windowOn`
    std::uint32_t windowOn;
    Lumora::Point cursor;         // on `cursorOn`
    std::uint32_t cursorOn;
};

const std::vector<Layout> layouts{
    {"two-side-by-side",
     {{"DP-1", 103, true, "DP-1", {1920, 0, 2560, 1440}}, {"eDP-1", 95, false, "eDP-1", {0, 0, 1920, 1200}}},
     {1700, 100, 500, 300}, 103, {100, 1100}, 95},
    {"three-side-by-side",
     {{"DP-1", 103, true, "DP-1", {1920, 0, 2560, 1440}},
      {"HDMI-A-1", 110, true, "HDMI-1", {4480, 0, 1920, 1080}},
      {"eDP-1", 95, false, "eDP1", {0, 0, 1920, 1200}}},
     {4300, 200, 700, 400}, 110, {2000, 1300}, 103},
    {"two-stacked",
     {{"DP-1", 103, true, "DP-1", {0, 0, 2560, 1440}}, {"eDP-1", 95, false, "eDP-1", {320, 1440, 1920, 1200}}},
     {400, 1300, 800, 600}, 95, {2500, 1400}, 103},
    {"three-stacked",
     {{"DP-1", 103, true, "DP-1", {0, 1080, 2560, 1440}},
      {"HDMI-A-1", 110, true, "HDMI-A-1", {0, 0, 1920, 1080}},
      {"eDP-1", 95, false, "eDP-1", {640, 2520, 1280, 360}}},
     {200, 900, 900, 700}, 103, {700, 2600}, 95},
};

const Layout* chosen = nullptr;

std::string deskJson(const Layout& layout)
{
    std::string connectors;
    int bus = 3;
    for (const Output& o : layout.outputs) {
        if (!connectors.empty())
            connectors += ",";
        connectors += R"({"name":")" + o.connector + R"(","connectorId":)" + std::to_string(o.id) +
                      R"(,"ddc":{"bus":)" + std::to_string(bus++) + "}" + (o.ddc ? R"(,"monitor":{})" : "") + "}";
    }
    return R"({"cards":[{"connectors":[)" + connectors + "]}]}";
}

std::string monitorsOf(const Layout& layout)
{
    std::string monitors;
    for (const Output& o : layout.outputs) {
        monitors += (monitors.empty() ? "" : " ") + o.monitor + "=" + std::to_string(int(o.frame.width)) + "x" +
                 std::to_string(int(o.frame.height)) + "+" + std::to_string(int(o.frame.x)) + "+" +
                 std::to_string(int(o.frame.y));
    }
    return monitors;
}

// The controller's list as it stands once read: every output, the DDC/CI monitors able to power off.
std::vector<Lumora::DisplaySnapshot> controllerList()
{
    std::vector<Lumora::DisplaySnapshot> list;
    for (const Output& o : chosen->outputs)
        list.push_back({o.id, o.connector, 0.5, true, o.ddc});
    return list;
}

// What the keys and the session bus decide for the display `id`: act on a DDC/CI monitor, leave the rest.
Lumora::TargetResolver::Decision inUse(std::uint32_t id)
{
    for (const Output& o : chosen->outputs) {
        if (o.id == id)
            return {id, o.ddc ? Lumora::TargetResolver::Action::adjust : Lumora::TargetResolver::Action::passThrough};
    }
    return {id, Lumora::TargetResolver::Action::passThrough};
}

std::vector<Lumora::TargetResolver::Display> resolverDisplays(const std::vector<Lumora::DisplayFrame>& frames)
{
    std::vector<Lumora::TargetResolver::Display> displays;
    for (const auto& f : frames) {
        bool ddc = false;
        for (const Output& o : chosen->outputs)
            ddc = ddc || (o.id == f.id && o.ddc);
        displays.push_back({f.id, f.frame, ddc});
    }
    return displays;
}

class ResolverInputs : public ::testing::Test {
protected:
    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::fromJson(deskJson(*chosen))};
};

}  // namespace

TEST_F(ResolverInputs, DisplayFramesAreTheMonitorsOfTheirConnectors)
{
    ASSERT_EQ(QGuiApplication::platformName(), QStringLiteral("xcb"));
    const std::vector<Lumora::DisplayFrame> frames = Lumora::DisplayFrames::active();
    ASSERT_EQ(frames.size(), chosen->outputs.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        SCOPED_TRACE(chosen->outputs[i].connector);
        EXPECT_EQ(frames[i].id, chosen->outputs[i].id);
        EXPECT_EQ(frames[i].frame, chosen->outputs[i].frame);
    }
}

TEST_F(ResolverInputs, TheFocusedWindowWithItsDecorationsAndTheCursorPickTheirDisplay)
{
    const Layout& layout = *chosen;
    QWidget window;
    window.setWindowTitle(QStringLiteral("resolver inputs"));
    window.move(int(layout.window.x), int(layout.window.y));
    window.resize(int(layout.window.width), int(layout.window.height));
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));

    // The window manager has placed and decorated it; the frame the keys see is the one on screen.
    std::optional<Rect> focused;
    const auto onScreen = [&] {
        const QRect f = window.frameGeometry();
        focused = Lumora::FocusedWindow::frame();
        return focused && *focused == Rect{double(f.x()), double(f.y()), double(f.width()), double(f.height())} &&
               f != window.geometry();
    };
    ASSERT_TRUE(pumpUntil(onScreen, 5s)) << "focused window: "
                                         << (focused ? std::to_string(focused->x) + "," + std::to_string(focused->y) + " " +
                                                           std::to_string(focused->width) + "x" + std::to_string(focused->height)
                                                     : std::string("none"));

    const auto displays = resolverDisplays(Lumora::DisplayFrames::active());
    const auto byWindow = Lumora::TargetResolver::resolve(displays, focused, layout.cursor);
    ASSERT_TRUE(byWindow);
    EXPECT_EQ(byWindow->displayID, layout.windowOn);
    // Gathered and decided in one place for the keys and the session bus, from the controller's list.
    EXPECT_EQ(Lumora::DisplayInUse::resolve(controllerList()), inUse(layout.windowOn));
    // Before the controller's first list every display is left to the desktop.
    EXPECT_EQ(Lumora::DisplayInUse::resolve({}),
              (Lumora::TargetResolver::Decision{layout.windowOn, Lumora::TargetResolver::Action::passThrough}));

    QCursor::setPos(int(layout.cursor.x), int(layout.cursor.y));
    ASSERT_TRUE(pumpUntil([&] { return Lumora::Cursor::position() == layout.cursor; }, 5s));
    const auto byCursor = Lumora::TargetResolver::resolve(displays, std::nullopt, *Lumora::Cursor::position());
    ASSERT_TRUE(byCursor);
    EXPECT_EQ(byCursor->displayID, layout.cursorOn);

    window.close();
    EXPECT_TRUE(pumpUntil([] { return !Lumora::FocusedWindow::frame(); }, 5s)) << "no window is active any more";
    EXPECT_EQ(Lumora::DisplayInUse::resolve(controllerList()), inUse(layout.cursorOn));
}

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--list") == 0) {
            for (const Layout& layout : layouts)
                std::cout << layout.name << "\n";
            return 0;
        }
        for (const Layout& layout : layouts) {
            if (hasValue && layout.name == argv[i + 1]) {
                if (std::strcmp(argv[i], "--monitors") == 0) {
                    std::cout << monitorsOf(layout) << "\n";
                    return 0;
                }
                if (std::strcmp(argv[i], "--layout") == 0)
                    chosen = &layout;
            }
        }
    }
    if (chosen == nullptr) {
        std::cerr << "resolver_inputs: --list, --monitors LAYOUT or --layout LAYOUT\n";
        return 2;
    }
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
