#include "Lumora/App/AppDelegate.h"

#include <cstdio>

namespace Lumora {

// The tray application is being built; until then the program says what it can do today.
int AppDelegate::runApplication(int, char**)
{
    std::puts("Lumora: the tray application is not built yet. Run the probe: LUMORA_PROBE=1 lumora");
    return 0;
}

}  // namespace Lumora
