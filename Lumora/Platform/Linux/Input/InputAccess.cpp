#include "Lumora/Platform/Linux/Input/InputAccess.h"

#include <unistd.h>

#include "Lumora/Platform/Linux/Input/KeyDevices.h"

namespace Lumora::Platform {

bool InputAccess::isTrusted(const std::set<std::string>& ignored)
{
    if (::access(uinputNode, W_OK) != 0)
        return false;
    for (const KeyDevice& device : KeyDevices::list(ignored)) {
        if (device.keys.hasBrightnessKeys() && ::access(device.node.c_str(), R_OK) != 0)
            return false;
    }
    return true;
}

}  // namespace Lumora::Platform
