#pragma once
// One tray application per user session: an exclusive lock on a file in the session's runtime directory
// ($XDG_RUNTIME_DIR/lumora.lock, else /tmp/lumora-<uid>.lock), held until the process ends.

namespace Lumora::SingleInstance {

// True when this process now holds the lock (and keeps it for its lifetime); false when another process holds
// it. A lock file that cannot be opened at all does not stop the application: true.
bool acquire();

}  // namespace Lumora::SingleInstance
