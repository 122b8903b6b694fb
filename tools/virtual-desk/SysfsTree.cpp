// SPDX-License-Identifier: GPL-3.0-or-later
// The desk's sysfs tree as umockdev records, laid out as the kernel lays it out: PCI cards (each DRM card with its
// `device` link to the PCI device) with their DRM connectors (status, enabled, connector_id, EDID, the DDC adapter
// as a `ddc` link, a DisplayPort AUX child, or an adapter under the PCI device that nothing links), i2c adapters
// with their i2c-dev nodes, other buses (under the SMBus controller or a card's PCI device), and backlights.
#include "tools/virtual-desk/DeskImpl.h"

#include <algorithm>

namespace VirtualDesk {

namespace {

std::string attr(const std::string& name, const std::string& value)
{
    return "A: " + name + "=" + value + "\\n\n";
}

std::string defaultAdapterName(const ConnectorConfig& c, int bus)
{
    if (c.ddc->via == DdcVia::Aux)
        return "AUX " + c.name;
    if (c.ddc->via == DdcVia::Pci)
        return "DPMST";
    return "gmbus " + c.name + " (i2c-" + std::to_string(bus) + ")";
}

} // namespace

std::string Desk::Impl::i2cDevRecord(const std::string& adapter, int bus, const std::string& name) const
{
    const std::string n = std::to_string(bus);
    return "P: " + adapter + "/i2c-dev/i2c-" + n + "\nN: i2c-" + n + "\nE: DEVNAME=/dev/i2c-" + n +
           "\nE: SUBSYSTEM=i2c-dev\nE: MAJOR=89\nE: MINOR=" + n + "\n" + attr("dev", "89:" + n) +
           attr("name", name) + "\n";
}

std::string Desk::Impl::i2cRecords(const std::string& adapter, int bus, const std::string& name) const
{
    std::string r = "P: " + adapter + "\nE: SUBSYSTEM=i2c\n" + attr("name", name) + "\n";
    if (config.i2cDev)
        r += i2cDevRecord(adapter, bus, name);
    return r;
}

std::string Desk::Impl::connectorRecords(const Connector& c) const
{
    const ConnectorConfig& cfg = c.cfg;
    std::string r = "P: " + c.devpath.substr(4) + "\nE: SUBSYSTEM=drm\n";
    r += attr("status", cfg.status);
    r += attr("enabled", cfg.enabled ? "enabled" : "disabled");
    r += attr("dpms", cfg.enabled ? "On" : "Off");
    if (cfg.connectorId)
        r += attr("connector_id", std::to_string(*cfg.connectorId));
    if (cfg.edid) {
        const auto bytes = cfg.status == "connected" ? c.edid : std::vector<uint8_t>{};
        std::string hex;
        char b[3];
        for (uint8_t v : bytes) {
            std::snprintf(b, sizeof b, "%02x", v);
            hex += b;
        }
        r += "H: edid=" + hex + "\n";
    }
    if (cfg.ddc && cfg.ddc->via == DdcVia::Link)
        r += "L: ddc=../../../i2c-" + std::to_string(cfg.ddc->bus) + "\n";
    r += "\n";
    if (cfg.ddc)
        r += i2cRecords(c.adapterDevpath.substr(4), cfg.ddc->bus, buses.at(cfg.ddc->bus)->name);
    return r;
}

std::string Desk::Impl::records()
{
    std::string r;
    for (const auto& card : config.cards) {
        const std::string pci = "/devices/pci0000:00/" + card.pciSlot;
        const std::string n = std::to_string(card.index);
        const std::string cardPath = pci + "/drm/card" + n;
        r += "P: " + pci + "\nE: SUBSYSTEM=pci\nE: DRIVER=" + card.driver + "\nE: PCI_CLASS=30000\n" +
             attr("class", "0x030000") + "\n";
        r += "P: " + cardPath + "\nN: dri/card" + n + "\nE: DEVNAME=/dev/dri/card" + n +
             "\nE: SUBSYSTEM=drm\nE: DEVTYPE=drm_minor\nE: MAJOR=226\nE: MINOR=" + n + "\n" +
             attr("dev", "226:" + n) + "L: device=../../../" + card.pciSlot + "\n\n";
        const std::string render = std::to_string(128 + card.index);
        r += "P: " + pci + "/drm/renderD" + render + "\nN: dri/renderD" + render + "\nE: DEVNAME=/dev/dri/renderD" +
             render + "\nE: SUBSYSTEM=drm\nE: DEVTYPE=drm_minor\nE: MAJOR=226\nE: MINOR=" + render + "\n" +
             attr("dev", "226:" + render) + "\n";
        for (const auto& c : card.connectors)
            r += connectorRecords(*connectors.at("card" + n + "-" + c.name));
    }
    const std::string smbus = "/devices/pci0000:00/0000:00:1f.4";
    if (std::any_of(config.otherBuses.begin(), config.otherBuses.end(), [](const BusConfig& b) { return !b.card; }))
        r += "P: " + smbus + "\nE: SUBSYSTEM=pci\nE: DRIVER=i801_smbus\n" + attr("class", "0x0c0500") + "\n";
    for (const auto& b : config.otherBuses)
        r += i2cRecords(buses.at(b.bus)->adapterPath, b.bus, b.name);
    for (const auto& b : config.backlights) {
        std::string path = "/devices/virtual/backlight/" + b.name;
        if (!b.connector.empty())
            path = connectors.at(b.connector)->devpath.substr(4) + "/" + b.name;
        r += "P: " + path + "\nE: SUBSYSTEM=backlight\n" + attr("brightness", std::to_string(b.brightness)) +
             attr("actual_brightness", std::to_string(b.brightness)) + attr("max_brightness", std::to_string(b.max)) +
             attr("type", b.type) + attr("bl_power", "0") + "\n";
        backlights[b.name] = Backlight{b, "/sys" + path, sysDir + path, -1};
    }
    return r;
}

Connector& Desk::Impl::addConnectorObjects(const CardConfig& card, const ConnectorConfig& c)
{
    const std::string n = std::to_string(card.index);
    const std::string pci = "/sys/devices/pci0000:00/" + card.pciSlot;
    auto conn = std::make_unique<Connector>();
    conn->sysName = "card" + n + "-" + c.name;
    conn->cardDevpath = pci + "/drm/card" + n;
    conn->devpath = conn->cardDevpath + "/" + conn->sysName;
    conn->cfg = c;
    conn->plugged = c.status == "connected";
    if (c.edid)
        conn->edid = c.edid->bytes();
    if (c.monitor)
        conn->monitor.emplace(*c.monitor);
    if (c.ddc) {
        conn->bus = c.ddc->bus;
        conn->adapterDevpath = (c.ddc->via == DdcVia::Aux ? conn->devpath : pci) + "/i2c-" + std::to_string(c.ddc->bus);
        conn->eeprom = EmulatedEdid(conn->edid, c.ddc->eepromAddress);
        auto bus = std::make_unique<Bus>();
        bus->number = c.ddc->bus;
        bus->adapterPath = conn->adapterDevpath.substr(4);
        bus->name = c.ddc->name.empty() ? defaultAdapterName(c, c.ddc->bus) : c.ddc->name;
        bus->connector = conn.get();
        bus->nakErrno = nakErrnoOf(card, *c.ddc);
        bus->impl = this;
        buses[bus->number] = std::move(bus);
    }
    Connector& ref = *conn;
    connectors[conn->sysName] = std::move(conn);
    return ref;
}

void Desk::Impl::build()
{
    // Connector and bus tables first: the records need the connector paths.
    for (const auto& card : config.cards)
        for (const auto& c : card.connectors)
            addConnectorObjects(card, c);
    for (const auto& b : config.otherBuses) {
        auto bus = std::make_unique<Bus>();
        bus->number = b.bus;
        bus->name = b.name;
        std::string parent = "/devices/pci0000:00/0000:00:1f.4";
        for (const auto& card : config.cards)
            if (b.card && card.index == *b.card)
                parent = "/devices/pci0000:00/" + card.pciSlot;
        bus->adapterPath = parent + "/i2c-" + std::to_string(b.bus);
        bus->impl = this;
        buses[bus->number] = std::move(bus);
    }

    GError* error = nullptr;
    const std::string text = records();
    if (!umockdev_testbed_add_from_string(testbed, text.c_str(), &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: umockdev rejected the sysfs tree: " + msg);
    }
    if (config.i2cDev)
        for (auto& [number, bus] : buses)
            attach(*bus);
}

} // namespace VirtualDesk
