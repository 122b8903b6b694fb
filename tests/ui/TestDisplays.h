#pragma once
// Displays for the panel's tests, behind a real controller: a backend whose reading the test can change (whatever
// the controller sends it is dropped), desks of such displays, and the rows a view shows for them.

#include <QWidget>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/DisplayRow.h"

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

// The rows a view shows, top to bottom.
inline std::vector<Lumora::DisplayRow*> rowsOf(const QWidget& view)
{
    std::vector<Lumora::DisplayRow*> rows;
    for (Lumora::DisplayRow* row : view.findChildren<Lumora::DisplayRow*>()) {
        if (row->isVisibleTo(&view))
            rows.push_back(row);
    }
    std::sort(rows.begin(), rows.end(), [](auto* a, auto* b) { return a->y() < b->y(); });
    return rows;
}

}  // namespace LumoraTest
