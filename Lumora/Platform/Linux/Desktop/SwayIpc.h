// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Commands to sway (and other compositors that speak i3's IPC) over the socket named by SWAYSOCK: sway places the
// windows of XWayland clients itself (a floating window opens centred, whatever position it asks for), and moves
// one only when told over its IPC.

#include <string>

namespace Lumora::SwayIpc {

// True when the session's compositor has an IPC socket (SWAYSOCK).
bool isAvailable();

// Runs one command (sway's command language, criteria first) and waits a bounded time for the answer; true when
// sway says it succeeded.
bool command(const std::string& text);

}  // namespace Lumora::SwayIpc
