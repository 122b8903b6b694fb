#pragma once

namespace Lumora {

class AppDelegate {
public:
    // Starts the tray application and runs its event loop; returns the exit status.
    static int runApplication(int argc, char** argv);
};

}  // namespace Lumora
