// SPDX-License-Identifier: GPL-3.0-or-later
// The uinput driver's bookkeeping for one descriptor: bits and ids before UI_DEV_CREATE, nothing changes after.
#include "tools/virtual-desk/EmulatedUinput.h"

#include <linux/uinput.h>

#include <cerrno>
#include <cstring>

namespace VirtualDesk {

int EmulatedUinput::setBit(int type, int code)
{
    if (st == State::Created)
        return EINVAL;
    Bitmap* bits = caps.bits(type);
    if (!bits || code < 0 || code > bits->max())
        return EINVAL;
    bits->set(code);
    return 0;
}

int EmulatedUinput::setProperty(int prop)
{
    if (st == State::Created || prop < 0 || prop > INPUT_PROP_MAX)
        return EINVAL;
    caps.prop.set(prop);
    return 0;
}

int EmulatedUinput::setPhys(std::string phys)
{
    if (st == State::Created)
        return EINVAL;
    id.phys = std::move(phys);
    return 0;
}

int EmulatedUinput::setup(std::string name, uint16_t bustype, uint16_t vendor, uint16_t product, uint16_t version)
{
    if (st == State::Created)
        return EINVAL;
    if (name.empty())
        return EINVAL;
    id.name = std::move(name);
    id.bustype = bustype;
    id.vendor = vendor;
    id.product = product;
    id.version = version;
    st = State::SetUp;
    return 0;
}

int EmulatedUinput::legacySetup(const std::vector<uint8_t>& userDev)
{
    if (userDev.size() != sizeof(uinput_user_dev))
        return EINVAL;
    uinput_user_dev d{};
    std::memcpy(&d, userDev.data(), sizeof d);
    const std::string name(d.name, strnlen(d.name, sizeof d.name));
    return setup(name, d.id.bustype, d.id.vendor, d.id.product, d.id.version);
}

int EmulatedUinput::create(InputIdentity& identity, InputCapabilities& capabilities)
{
    if (st != State::SetUp)
        return EINVAL;
    identity = id;
    capabilities = caps;
    st = State::Created;
    return 0;
}

} // namespace VirtualDesk
