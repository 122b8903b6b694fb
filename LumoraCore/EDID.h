// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The identity of a display read from its EDID base block (the connector's sysfs `edid` file).

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Lumora {

struct EDIDIdentity {
    std::uint32_t vendor = 0;   // bytes 8-9, big-endian: the packed manufacturer letters, e.g. 0x10AC
    std::uint32_t model = 0;    // bytes 10-11, little-endian: the product code, e.g. 0xA0C4
    std::uint32_t serial = 0;   // bytes 12-15, little-endian; 0 when the monitor does not give one
    std::string productName;    // the texts of the monitor-name descriptors (tag 0xFC) joined; "" when none
    std::string identityUUID;   // bytes 8-23 as upper-case hex grouped 8-4-4-4-12, 36 characters
    std::string serialText;     // the serial-number descriptor (tag 0xFF), "" when there is none
    bool operator==(const EDIDIdentity&) const = default;
};

namespace EDID {

// All fields are 0 / "" when the blob is shorter than 128 bytes or does not start with the fixed header
// 00 FF FF FF FF FF FF 00. The block checksum is not checked: real panels ship wrong ones.
EDIDIdentity parse(std::span<const std::uint8_t> blob);

// The base block in bytes read from an EDID EEPROM starting wherever its address stood: `rotated` holds the
// EEPROM's contents in some rotation (two reads of 128 bytes from a 256-byte EEPROM, say). Each place where the
// fixed header starts is tried in order; the first whose 128 bytes, taken from there and wrapping around the end
// of `rotated`, have a right block checksum is the answer. Absent when there is none, or `rotated` is shorter
// than a block. Unlike `parse`, this checks the checksum: without it a rotation cannot be told from junk.
std::optional<std::array<std::uint8_t, 128>> baseBlockInRotation(std::span<const std::uint8_t> rotated);

}  // namespace EDID
}  // namespace Lumora
