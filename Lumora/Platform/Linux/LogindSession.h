// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// systemd-logind's per-session brightness call, over the system bus (sd-bus).
//
// The session is /org/freedesktop/login1/session/auto: logind resolves it to the caller's session (or the user's
// display session). The bus is the system bus, or the one named by DBUS_SYSTEM_BUS_ADDRESS. One connection per
// process, opened on first use and kept; a connection that breaks is dropped and reopened on the next call.
// Calls from several threads are serialised.

#include <cstdint>
#include <string>

namespace Lumora::Platform::LogindSession {

// How long one call may wait for logind's answer.
inline constexpr std::uint64_t callTimeoutUsec = 500'000;

// org.freedesktop.login1.Session.SetBrightness(subsystem, name, value). True when logind answered with success;
// false when there is no bus, no logind, no session, access was denied, or the call timed out.
bool setBrightness(const std::string& subsystem, const std::string& name, std::uint32_t value);

}  // namespace Lumora::Platform::LogindSession
