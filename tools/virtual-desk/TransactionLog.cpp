// SPDX-License-Identifier: GPL-3.0-or-later
// The transaction log's formatting: errno names, hex bytes and the JSON lines of `--log`.
#include "tools/virtual-desk/TransactionLog.h"

#include "tools/virtual-desk/VirtualDesk.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>

namespace VirtualDesk {

std::string errnoName(int e)
{
    switch (e) {
    case EREMOTEIO: return "EREMOTEIO";
    case ENXIO: return "ENXIO";
    case EIO: return "EIO";
    case EINVAL: return "EINVAL";
    case EFAULT: return "EFAULT";
    case ENOTTY: return "ENOTTY";
    case ETIMEDOUT: return "ETIMEDOUT";
    case EBUSY: return "EBUSY";
    case ENODEV: return "ENODEV";
    default: return "errno " + std::to_string(e);
    }
}

std::string hexBytes(const std::vector<uint8_t>& bytes)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02X", bytes[i]);
        if (i)
            out += ' ';
        out += buf;
    }
    return out;
}

std::string hex2(unsigned v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02X", v & 0xFFFF);
    return buf;
}

std::string toJsonLine(const Transaction& t)
{
    nlohmann::ordered_json j;
    j["t"] = t.startUs;
    j["end"] = t.endUs;
    j["bus"] = t.bus;
    j["connector"] = t.connector;
    j["client"] = t.client;
    j["via"] = t.via;
    j["addr"] = hex2(t.address);
    j["dir"] = t.direction == Direction::Read ? "read" : "write";
    j["bytes"] = hexBytes(t.bytes);
    if (!t.request.empty())
        j["request"] = t.request;
    if (t.code >= 0)
        j["code"] = hex2(static_cast<unsigned>(t.code));
    if (t.value >= 0)
        j["value"] = t.value;
    j["outcome"] = t.outcome;
    if (!t.note.empty())
        j["note"] = t.note;
    return j.dump();
}

} // namespace VirtualDesk
