// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The EDID EEPROM at 0x50 on a connector's DDC bus, as a 24C02 behaves: 256 bytes (the connector's EDID, the rest
// erased to 0xFF) and a current address. A write sets the address from its first byte (the offset write most EDID
// readers make; the desk still counts any write there as a violation); a read returns bytes from the current
// address on, wrapping at 256, and leaves the address after the last byte read. So a reader that never writes
// gets the EEPROM's contents in some rotation, starting wherever the last reader stopped. Not thread-safe: the desk
// calls it under its one mutex.
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace VirtualDesk {

class EmulatedEdid {
public:
    EmulatedEdid() = default;
    // `edid`: its first 256 bytes are stored; an empty one means nothing answers at 0x50. `address`: where the
    // current address stands at start.
    EmulatedEdid(const std::vector<uint8_t>& edid, uint8_t address);

    bool answers() const { return present; }
    uint8_t address() const { return current; }
    void write(const std::vector<uint8_t>& bytes);
    std::vector<uint8_t> read(std::size_t length);

private:
    std::array<uint8_t, 256> image{};
    bool present = false;
    uint8_t current = 0;
};

} // namespace VirtualDesk
