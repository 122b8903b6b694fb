#pragma once
// A monitor's channel through the real i2c-dev entry points, and what went over its bus.

#include <string>
#include <vector>

#include "Lumora/DDC/IOAVService.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace LumoraTest {

inline Lumora::IOAVServiceRef open(const VirtualDesk::Desk& desk, const std::string& connector)
{
    const Lumora::IOAVService::CreateFn create = Lumora::IOAVService::createFn();
    return create ? create(("/dev/i2c-" + std::to_string(desk.busNumber(connector))).c_str()) : nullptr;
}

// The transactions on the connector's bus, in order.
inline std::vector<VirtualDesk::Transaction> on(const VirtualDesk::Desk& desk, const std::string& connector)
{
    std::vector<VirtualDesk::Transaction> out;
    for (const VirtualDesk::Transaction& t : desk.transactions()) {
        if (t.connector == connector)
            out.push_back(t);
    }
    return out;
}

}  // namespace LumoraTest
