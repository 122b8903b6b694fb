// SPDX-License-Identifier: GPL-3.0-or-later
// The tray application started before the kernel's i2c-dev module was loaded: the monitors appear at the first
// refresh after the module is loaded, without a restart. Its own process: the I2C entry points, once found, stay
// bound for the process, so no earlier test may have found them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/EventLoop.h"
#include "Lumora/DDC/IOAVService.h"
#include "tools/virtual-desk/VirtualDesk.h"

using Lumora::DisplaySnapshot;
using namespace LumoraTest;

TEST(ControllerOnDesk, FindsTheMonitorsAtTheFirstRefreshAfterI2cDevIsLoaded)
{
    auto config = VirtualDesk::DeskConfig::defaultDesk();
    config.i2cDev = false;
    VirtualDesk::Desk desk(config);
    Lumora::DisplayController controller;
    Watch watch(controller);
    const DisplaySnapshot panel{95, "Built-in Display", 0.5, true, false};

    ASSERT_TRUE(watch.refreshAndWait());
    EXPECT_EQ(controller.displays(), std::vector<DisplaySnapshot>{panel});
    ASSERT_TRUE(watch.refreshAndWait());
    EXPECT_EQ(controller.displays(), std::vector<DisplaySnapshot>{panel}) << "still absent: asked again, still no";
    EXPECT_FALSE(Lumora::IOAVService::isAvailable());

    desk.loadI2cDev();
    ASSERT_TRUE(watch.refreshAndWait());
    EXPECT_EQ(controller.displays(), (std::vector<DisplaySnapshot>{{103, "DELL U2720Q", 0.5, true, true},
                                                                  {110, "LG HDR 4K", 0.7, true, true},
                                                                  panel}));
    controller.setBrightness(103, 0.8);
    EXPECT_TRUE(desk.waitFor([&] { return desk.brightness("card0-DP-1") == 80; }, std::chrono::seconds(10)));
    EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
}
