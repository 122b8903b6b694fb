// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/DisplayEnumerator.h"

#include <cstdint>
#include <span>
#include <string>

#include "Lumora/DDC/DDCBackend.h"
#include "Lumora/DDC/DDCService.h"
#include "Lumora/DDC/IOAVService.h"
#include "Lumora/DDC/InternalBackend.h"
#include "Lumora/Platform/Linux/DisplayAdapters.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"
#include "Lumora/Platform/Linux/EdidCache.h"
#include "LumoraCore/DisplayPairing.h"
#include "LumoraCore/EDID.h"

namespace Lumora {
namespace {

using Platform::DrmConnector;

// One I2C service with the identity attached to it.
struct RegService {
    ServiceIdentity identity;
    IOAVServiceRef service;
};

// The EDID's base block: its first 128 bytes, none when it is shorter.
std::vector<std::uint8_t> baseBlockOf(std::span<const std::uint8_t> edid)
{
    if (edid.size() < 128)
        return {};
    return {edid.begin(), edid.begin() + 128};
}

ServiceIdentity identityOf(const EDIDIdentity& edid, std::span<const std::uint8_t> bytes)
{
    return {edid.identityUUID, edid.productName, static_cast<std::int64_t>(edid.serial), baseBlockOf(bytes)};
}

// The channels no connector owns, each with the identity of the monitor that answers on it, in walk order (by
// card, then adapter number). A channel whose EDID cannot be read without writing has no monitor behind it and
// is no candidate; neither is one whose service cannot be created. Their EDIDs are read once and kept until a
// connector changes (EdidCache).
std::vector<RegService> collectUnownedServices(const std::vector<DrmConnector>& connectors, IOAVService::CreateFn create)
{
    std::vector<RegService> result;
    for (const Platform::DisplayAdapter& adapter : Platform::DisplayAdapters::unowned(connectors)) {
        std::optional<std::array<std::uint8_t, 128>> edid = Platform::EdidCache::baseBlock(
            connectors, adapter, std::chrono::steady_clock::now() + DDCService::busPatience);
        if (!edid)
            continue;
        if (IOAVServiceRef service = create(adapter.devicePath.c_str()))
            result.push_back({identityOf(EDID::parse(*edid), *edid), std::move(service)});
    }
    return result;
}

DisplayInfo info(std::uint32_t id, const RegService& service)
{
    return {id, DisplayPairing::displayName(id, service.identity.productName),
            std::make_shared<DDCBackend>(service.service)};
}

// Each external display on its connector's own channel; the displays without one paired by identity with the
// channels no connector owns, which are searched only when such a display exists. In the order of `externals`.
std::vector<DisplayInfo> matchExternals(const std::vector<const DrmConnector*>& externals,
                                        const std::vector<DrmConnector>& connectors)
{
    IOAVService::CreateFn create = IOAVService::createFn();
    if (!create)
        return {};

    std::vector<ExternalDisplay> displays;
    std::vector<EDIDIdentity> edids;
    bool anyWithoutChannel = false;
    for (const DrmConnector* connector : externals) {
        EDIDIdentity edid = EDID::parse(connector->edid);
        displays.push_back(
            {{connector->displayID, edid.vendor, edid.model, edid.serial, baseBlockOf(connector->edid)},
             connector->ddcDevicePath.has_value()});
        edids.push_back(std::move(edid));
        anyWithoutChannel = anyWithoutChannel || !connector->ddcDevicePath;
    }
    std::vector<RegService> unowned;
    if (anyWithoutChannel)
        unowned = collectUnownedServices(connectors, create);
    std::vector<ServiceIdentity> identities;
    for (const RegService& service : unowned)
        identities.push_back(service.identity);

    std::vector<DisplayInfo> result;
    for (const DisplayPairing::ChannelChoice& choice : DisplayPairing::assignChannels(displays, identities)) {
        const std::uint32_t id = displays[choice.display].identity.id;
        if (choice.unownedChannel) {
            result.push_back(info(id, unowned[*choice.unownedChannel]));
            continue;
        }
        // A connector's own channel that cannot be opened leaves its display out.
        if (IOAVServiceRef service = create(externals[choice.display]->ddcDevicePath->c_str()))
            result.push_back(info(id, {identityOf(edids[choice.display], {}), std::move(service)}));
    }
    return result;
}

}  // namespace

std::vector<DisplayInfo> DisplayEnumerator::allDisplays()
{
    std::vector<DrmConnector> connectors = Platform::DrmConnectors::list();
    std::vector<const DrmConnector*> online;
    for (const DrmConnector& connector : connectors) {
        if (connector.active())
            online.push_back(&connector);
    }

    std::vector<const DrmConnector*> externals;
    for (const DrmConnector* connector : online) {
        if (!connector->builtIn)
            externals.push_back(connector);
    }
    std::vector<DisplayInfo> result = matchExternals(externals, connectors);
    for (const DrmConnector* connector : online) {
        if (connector->builtIn)
            result.push_back({connector->displayID, "Built-in Display",
                              std::make_shared<InternalBackend>(connector->displayID)});
    }
    return result;
}

}  // namespace Lumora
