#include "Lumora/DDC/DisplayEnumerator.h"

#include <cstdint>
#include <optional>
#include <string>

#include "Lumora/DDC/DDCBackend.h"
#include "Lumora/DDC/IOAVService.h"
#include "Lumora/DDC/InternalBackend.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"
#include "LumoraCore/DisplayPairing.h"
#include "LumoraCore/EDID.h"

namespace Lumora {
namespace {

using Platform::DrmConnector;

// One entry of the hardware walk, in walk order: a framebuffer carries a display's identity; a service proxy is
// the way to one display's I2C channel and takes the identity of the framebuffer met just before it.
struct RegistryEntry {
    enum class Kind { framebuffer, serviceProxy };
    Kind kind;
    ServiceIdentity identity;   // framebuffer
    std::string location;       // service proxy: "External" for an external display's
    std::string devicePath;     // service proxy: the i2c-dev node
};

// One external I2C service with the identity attached to it.
struct RegService {
    ServiceIdentity identity;
    IOAVServiceRef service;
};

// The Linux walk: per connector, in order, the framebuffer entry of every connected connector (its identity from
// the EDID), then, for a connected external connector with a DDC adapter, its service proxy.
std::vector<RegistryEntry> registryEntries(const std::vector<DrmConnector>& connectors)
{
    std::vector<RegistryEntry> entries;
    for (const DrmConnector& connector : connectors) {
        if (!connector.connected)
            continue;
        EDIDIdentity edid = EDID::parse(connector.edid);
        entries.push_back({RegistryEntry::Kind::framebuffer,
                           {edid.identityUUID, edid.productName, static_cast<std::int64_t>(edid.serial)},
                           {},
                           {}});
        if (!connector.builtIn && connector.ddcDevicePath)
            entries.push_back({RegistryEntry::Kind::serviceProxy, {}, "External", *connector.ddcDevicePath});
    }
    return entries;
}

std::vector<RegService> collectExternalServices(const std::vector<RegistryEntry>& entries)
{
    std::vector<RegService> result;
    std::optional<ServiceIdentity> pending;  // absent: the empty identity
    IOAVService::CreateFn create = IOAVService::createFn();
    for (const RegistryEntry& entry : entries) {
        if (entry.kind == RegistryEntry::Kind::framebuffer) {
            // An identity that no proxy took is replaced.
            pending = entry.identity;
            continue;
        }
        // Internal proxies never consume an identity.
        if (entry.location != "External")
            continue;
        IOAVServiceRef service = create ? create(entry.devicePath.c_str()) : nullptr;
        if (service)
            result.push_back({pending.value_or(ServiceIdentity{}), std::move(service)});
        pending.reset();
    }
    return result;
}

DisplayInfo info(std::uint32_t id, const RegService& service)
{
    return {id, DisplayPairing::displayName(id, service.identity.productName),
            std::make_shared<DDCBackend>(service.service)};
}

std::vector<DisplayInfo> matchExternals(const std::vector<const DrmConnector*>& externals,
                                        const std::vector<DrmConnector>& connectors)
{
    // The walk runs on every call, even with no external display online.
    std::vector<RegService> services = collectExternalServices(registryEntries(connectors));

    std::vector<ExternalDisplayIdentity> displays;
    for (const DrmConnector* connector : externals) {
        EDIDIdentity edid = EDID::parse(connector->edid);
        displays.push_back({connector->displayID, edid.vendor, edid.model, edid.serial});
    }
    std::vector<ServiceIdentity> identities;
    for (const RegService& service : services)
        identities.push_back(service.identity);

    std::vector<DisplayInfo> result;
    for (const DisplayPairing::Pair& pair : DisplayPairing::pair(displays, identities))
        result.push_back(info(displays[pair.display].id, services[pair.service]));
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
