#pragma once
// Lumora on the session bus: the name org.lumora.Lumora, the object /org/lumora/Lumora and its interface
// org.lumora.Lumora1. Owning the name is also how a second start of Lumora finds the first one and asks it to
// show its panel instead of starting again. Every method reaches the application through the actions it is given.

#include <QDBusAbstractAdaptor>
#include <QObject>

#include <functional>
#include <memory>

namespace Lumora {

// What the bus interface can ask of the running application.
struct SessionBusActions {
    std::function<void()> showPanel;
};

class SessionBus : public QObject {
    Q_OBJECT
public:
    static constexpr const char* serviceName = "org.lumora.Lumora";
    static constexpr const char* objectPath = "/org/lumora/Lumora";
    static constexpr const char* interfaceName = "org.lumora.Lumora1";

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

    const SessionBusActions& actions() const { return actions_; }

private:
    explicit SessionBus(SessionBusActions actions);

    SessionBusActions actions_;
};

// The interface org.lumora.Lumora1 on /org/lumora/Lumora.
class SessionBusAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.lumora.Lumora1")
public:
    explicit SessionBusAdaptor(SessionBus* bus);

public slots:
    // Shows the panel: under the tray icon, or as Lumora's window on a desktop without a tray.
    void ShowPanel();

private:
    SessionBus* bus_;
};

}  // namespace Lumora
