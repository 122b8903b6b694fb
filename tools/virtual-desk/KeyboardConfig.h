// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The desk file's "keyboards" and "uinput" (and the control language's `keyboard add {...}`).
#include "tools/virtual-desk/VirtualDesk.h"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <vector>

namespace VirtualDesk {

// Each throws std::runtime_error naming the offending field ("keyboards[1].kind: ...").
KeyboardConfig parseKeyboard(const nlohmann::json& j, const std::string& where);
std::vector<KeyboardConfig> parseKeyboards(const nlohmann::json& j, const std::string& where);
std::optional<UinputConfig> parseUinput(const nlohmann::json& j, const std::string& where); // null: none
void validateKeyboards(const DeskConfig& desk);
// The laptop keyboard (event0), the Video Bus (event1), an external USB keyboard (event2) with its
// consumer-control interface (event3), and /dev/uinput, all accessible.
void addDefaultKeyboards(DeskConfig& desk);

} // namespace VirtualDesk
