// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Displays for the panel's tests, behind a real controller: a backend whose reading the test can change (whatever
// the controller sends it is dropped), desks of such displays, and the panel as the application builds it over them.

#include <QApplication>
#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/PopoverPanel.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/PopoverView.h"

namespace LumoraTest {

struct Backend final : Lumora::DisplayBackend {
    Backend(bool ddc, double reading) : ddc(ddc), reading(reading) {}
    bool canPowerOff() const override { return ddc; }
    std::optional<double> readBrightness() override { return reading.load(); }
    void writeBrightness(double) override {}
    void setPower(bool) override {}
    const bool ddc;
    std::atomic<double> reading;
};

inline std::shared_ptr<Backend> monitor(double reading = 0.5) { return std::make_shared<Backend>(true, reading); }
inline std::shared_ptr<Backend> builtIn() { return std::make_shared<Backend>(false, 0.8); }

// `monitors` DDC monitors (11 "Monitor 1", 12 "Monitor 2", ...), then the built-in display (99) when asked.
inline std::vector<Lumora::DisplayInfo> desk(int monitors, bool withBuiltIn)
{
    std::vector<Lumora::DisplayInfo> list;
    for (int i = 0; i < monitors; ++i)
        list.push_back({static_cast<std::uint32_t>(11 + i), "Monitor " + std::to_string(i + 1), monitor()});
    if (withBuiltIn)
        list.push_back({99, "Built-in Display", builtIn()});
    return list;
}

// The panel as the application builds it, over a real controller of `list` (its enumerations counted), refreshed
// once and shown with the focus.
struct Shown {
    explicit Shown(std::vector<Lumora::DisplayInfo> list) : displays(std::move(list))
    {
        EXPECT_TRUE(refreshAndWait());
        panel.show();
        panel.activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowActive(&panel, 5000));
    }
    bool refreshAndWait()
    {
        QSignalSpy published(&controller, &Lumora::DisplayController::displaysChanged);
        controller.refresh();
        const bool done = published.wait(5000);
        panel.fitContent();
        QApplication::processEvents();
        return done;
    }
    Lumora::PopoverView* view() const { return static_cast<Lumora::PopoverView*>(panel.contentView()); }
    // The rows shown, top to bottom.
    std::vector<Lumora::DisplayRow*> rows() const
    {
        std::vector<Lumora::DisplayRow*> rows;
        for (Lumora::DisplayRow* row : view()->findChildren<Lumora::DisplayRow*>())
            if (row->isVisibleTo(view()))
                rows.push_back(row);
        std::sort(rows.begin(), rows.end(), [](auto* a, auto* b) { return a->y() < b->y(); });
        return rows;
    }
    Lumora::DisplayRow* row(int index) const { return rows().at(index); }
    // The control named so, in the view or in a row of it.
    template <typename T>
    T* find(const char* name, const QWidget* in = nullptr) const
    {
        return (in != nullptr ? in : view())->findChild<T*>(QLatin1String(name));
    }

    const std::vector<Lumora::DisplayInfo> displays;
    std::atomic<int> enumerations{0};
    Lumora::DisplayController controller{[this] { ++enumerations; return displays; }};
    Lumora::PopoverPanel panel{new Lumora::PopoverView(controller)};
};

}  // namespace LumoraTest
