// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A monitor's EDID read from its EEPROM at I2C address 0x50 on a display adapter, by reading only.
//
// Read-only by construction: the node is opened read-only, every message built here carries the read flag and
// address 0x50, and nothing here takes bytes to send. (IOAVService's write entry point, the only other way onto
// a bus, refuses every address but 0x37.) An offset write before the read, as EDID readers usually make, is
// never made: plain reads start at the EEPROM's current address and wrap at 256, so two consecutive reads of 128
// bytes return its 256 bytes in some rotation, and the base block is located in them by its header and checksum
// (LumoraCore/EDID.h). Each message is 128 bytes because an MST port carries at most 255 bytes a message. The
// 256 bytes read leave the EEPROM's address where they found it.
//
// The two reads are one exchange: the bus is held throughout (BusLock), so that another EDID read, which would
// move the EEPROM's address, or a DDC/CI exchange never comes between them.

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Lumora::Platform::EdidEeprom {

// The base block; absent when the node cannot be opened, another program keeps the bus past `deadline`, a read
// fails (nothing answers at 0x50), or what came back holds no block with a right checksum.
std::optional<std::array<std::uint8_t, 128>> readBaseBlock(const std::string& devicePath,
                                                           std::chrono::steady_clock::time_point deadline);

}  // namespace Lumora::Platform::EdidEeprom
