// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/CommandLine.h"

namespace Lumora {

CommandLine CommandLine::parse(int argc, const char* const* argv)
{
    CommandLine line;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i] != nullptr ? argv[i] : "";
        if (argument == "--help" || argument == "-h") {
            line.help = true;
        } else if (argument == "--version") {
            line.version = true;
        } else if (argument == "--background") {
            line.background = true;
        } else {
            line.unknown.push_back(argument);
        }
    }
    return line;
}

}  // namespace Lumora
