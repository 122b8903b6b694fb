#pragma once
// Helpers for running the controller on the virtual desk: what reached a monitor on the wire, and waiting for
// publications while the main thread's event loop keeps running.

#include <QObject>

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include "EventLoop.h"
#include "Lumora/App/DisplayController.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace LumoraTest {

constexpr int brightnessCode = 0x10;
constexpr int powerModeCode = 0xD6;

// One Set VCP Feature message as the monitor received it.
struct SetOnWire {
    int code;
    int value;
    bool operator==(const SetOnWire&) const = default;
};

// The Set VCP Feature messages that reached a connector's monitor, in order. A DDC/CI write sends its packet
// twice, so each write shows twice.
inline std::vector<SetOnWire> setsOnWire(const VirtualDesk::Desk& desk, const std::string& connector)
{
    std::vector<SetOnWire> sets;
    for (const VirtualDesk::Transaction& t : desk.transactions()) {
        if (t.connector == connector && t.address == 0x37 && t.request == "set" && t.outcome == "ok") {
            sets.push_back(SetOnWire{t.code, t.value});
        }
    }
    return sets;
}

inline std::vector<SetOnWire> twice(std::initializer_list<SetOnWire> writes)
{
    std::vector<SetOnWire> sets;
    for (const SetOnWire& w : writes) {
        sets.push_back(w);
        sets.push_back(w);
    }
    return sets;
}

// Counts the controller's publications and lets a test wait for the next one.
class Publications {
public:
    explicit Publications(Lumora::DisplayController& controller) : controller_(controller)
    {
        QObject::connect(&controller, &Lumora::DisplayController::displaysChanged, [this] { ++changes_; });
    }
    int changes() const { return changes_; }

    // refresh() and wait until it has published. Each display is read on its own queue behind whatever was
    // queued for it before, so afterwards every earlier write and power command has run.
    bool refreshAndWait(std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const int before = changes_;
        controller_.refresh();
        return pumpUntil([&] { return changes_ > before; }, timeout);
    }

private:
    Lumora::DisplayController& controller_;
    int changes_ = 0;
};

inline const Lumora::DisplaySnapshot* find(const Lumora::DisplayController& controller, std::uint32_t id)
{
    for (const Lumora::DisplaySnapshot& snapshot : controller.displays()) {
        if (snapshot.id == id) {
            return &snapshot;
        }
    }
    return nullptr;
}

inline std::vector<std::uint32_t> listedIDs(const Lumora::DisplayController& controller)
{
    std::vector<std::uint32_t> ids;
    for (const Lumora::DisplaySnapshot& snapshot : controller.displays()) {
        ids.push_back(snapshot.id);
    }
    return ids;
}

inline std::ostream& operator<<(std::ostream& out, const SetOnWire& set)
{
    return out << "{0x" << std::hex << set.code << std::dec << "=" << set.value << "}";
}

}  // namespace LumoraTest
