#pragma once
// Whether Lumora may take the brightness keys: it must read every event node of a device that reports them and
// write /dev/uinput, where it creates the clones that pass every other key on. access() answers for this process
// (file modes and ACLs both count, as the udev rule's uaccess tag grants through an ACL).

#include <set>
#include <string>

namespace Lumora::Platform {

namespace InputAccess {

constexpr const char* uinputNode = "/dev/uinput";

// True when /dev/uinput is writable and every device with brightness keys (other than those in `ignored`,
// Lumora's own clones) has a readable event node. Without any such device only /dev/uinput counts.
bool isTrusted(const std::set<std::string>& ignored = {});

}  // namespace InputAccess
}  // namespace Lumora::Platform
