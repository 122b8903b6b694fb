// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What `lumora` is asked on its command line. The tray application takes few options of its own; Qt takes its
// standard ones (-platform, -style, ...) out of the arguments before the rest is judged here.

#include <string>
#include <vector>

namespace Lumora {

struct CommandLine {
    bool help = false;
    bool version = false;
    // Started with the session (the autostart entry): on a desktop without a tray no window opens; Lumora waits in
    // the background (brightness keys, session bus) until it is started again.
    bool background = false;
    // The arguments that are none of the above, in order.
    std::vector<std::string> unknown;

    // Judges argv[1..argc-1].
    static CommandLine parse(int argc, const char* const* argv);
};

}  // namespace Lumora
