// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Names of input event types and codes as linux/input-event-codes.h spells them, for the control language, desk
// files and the log.
#include <optional>
#include <string>
#include <string_view>

namespace VirtualDesk {

// "KEY_BRIGHTNESSUP", "BRIGHTNESSUP", "brightnessup", "BTN_LEFT", "225" or "0xe1"; nothing when unknown or
// out of range.
std::optional<int> keyCode(std::string_view name);
std::string keyName(int code);                  // "KEY_BRIGHTNESSUP"; the number when it has no name
std::string eventTypeName(int type);            // "EV_KEY"; the number otherwise
std::string eventCodeName(int type, int code);  // "SYN_REPORT", "MSC_SCAN", "LED_CAPSL", key names; else the number

} // namespace VirtualDesk
