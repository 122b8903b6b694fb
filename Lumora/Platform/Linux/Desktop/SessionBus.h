// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Lumora on the session bus: the name org.lumora.Lumora, and on /org/lumora/Lumora the interface
// org.lumora.Lumora1 (SessionBusInterface). Owning the name is also how a second start of Lumora finds the first one
// and asks it to show its panel instead of starting again.

#include <QObject>

#include <memory>

#include "Lumora/Platform/Linux/Desktop/SessionBusInterface.h"

namespace Lumora {

class SessionBus : public QObject {
    Q_OBJECT
public:
    static constexpr const char* serviceName = "org.lumora.Lumora";
    static constexpr const char* objectPath = SessionBusInterface::path;
    static constexpr const char* interfaceName = SessionBusInterface::name;

    enum class Claim {
        owned,           // this process now serves the interface
        takenByAnother,  // another Lumora owns the name
        noBus,           // no session bus: nothing is served
    };

    // Exports the object and asks for the name. Present only when the name is now this process's.
    static std::unique_ptr<SessionBus> claim(SessionBusActions actions, Claim& outcome);

    // Asks the Lumora that owns the name to show its panel; true when it did. Blocks for at most a few seconds.
    static bool showRunningPanel();

    ~SessionBus() override;

    // The application's list of displays changed: clients hear of it at the end of this turn of the event loop.
    void displaysChanged();

private:
    explicit SessionBus(SessionBusActions actions);

    std::unique_ptr<SessionBusInterface> interface_;
};

}  // namespace Lumora
