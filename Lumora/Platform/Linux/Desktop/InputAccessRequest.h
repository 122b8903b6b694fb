#pragma once
// The permission flow for the brightness keys: runs Lumora's small fixed helper as root through pkexec (polkit
// asks for an administrator's password, stating that this lets Lumora read the keyboard). The helper installs the
// udev rule that gives the user at the seat read access to key devices and write access to /dev/uinput. No shell
// is involved and nothing here is setuid.

namespace Lumora::InputAccessRequest {

// Starts the flow and returns at once; false when pkexec or the helper is not there. The outcome is seen through
// the device nodes' access (InputAccessWatcher), not here.
bool start();

}  // namespace Lumora::InputAccessRequest
