// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One tray application per user session, also where there is no session bus: an exclusive lock on a file held
// until the process ends. The file lives in the session's runtime directory ($XDG_RUNTIME_DIR/lumora.lock), else
// in a directory of the user's own under /tmp (/tmp/lumora-<uid>/lumora.lock), made 0700 and used only while it
// is a real directory owned by the user that nobody else can write to, so another user can never hold the lock.

#include <optional>
#include <string>

namespace Lumora::SingleInstance {

// The lock file for this user: under `runtimeDirectory` when it is an absolute path, else in
// `fallbackParent`/lumora-<uid>, created (0700) when missing. Absent when the fallback directory cannot be made or
// is not the user's own private directory (someone else's, a symbolic link, open to group or others).
std::optional<std::string> lockPath(const char* runtimeDirectory, const std::string& fallbackParent = "/tmp");

// True when this process now holds the lock (and keeps it for its lifetime); false when another process holds
// it. Without a usable lock file the application is not stopped: true.
bool acquire();

}  // namespace Lumora::SingleInstance
