// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// How the desk writes down what it saw: errno names, hex bytes, and one JSON line per I2C message.
#include <cstdint>
#include <string>
#include <vector>

namespace VirtualDesk {

std::string errnoName(int e);                          // "EREMOTEIO", ..., "errno 123"
std::string hexBytes(const std::vector<uint8_t>& bytes); // "51 82 01 10 AC"
std::string hex2(unsigned v);                            // "0x37"

} // namespace VirtualDesk
