#pragma once
// Makes the keyboard's brightness keys act on the external monitor the user works on (DisplayInUse): F1 one
// sixteenth darker, F2 one sixteenth brighter; with Option (Alt) held, F1 puts that monitor into standby (0.0) and
// F2 wakes it at full brightness (1.0). Keys that concern the built-in panel, and every other key, go on to the
// desktop unchanged.
//
// The feature is off until the user switches it on; the switch is kept in the settings under
// "useF1F2ForExternalBrightness". Taking the keys needs access to the keyboards and to /dev/uinput ("trusted");
// the service follows that access, asks for it when the user switches the feature on without it, and installs or
// removes the tap whenever the setting or the access changes:
//
//   isEnabled  isTrusted   tap
//   false      either      no     (off)
//   true       false       no     (waiting for permission)
//   true       true        yes    (active)
//
// Main thread only. Observers: objectWillChange() before, and isEnabledChanged() / isTrustedChanged() right after,
// every assignment of a published field, also when the value does not change.

#include <QObject>

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora {

class DisplayController;
class InputAccessWatcher;

namespace Platform {
class KeyTap;
struct KeyPress;
}  // namespace Platform

class HotkeyService : public QObject {
    Q_OBJECT

public:
    static constexpr const char* settingsKey = "useF1F2ForExternalBrightness";
    // A change of access is looked at this long after it was noticed (the desktop applies a grant in steps).
    static constexpr int trustRecheckDelayMs = 500;

    // Reads the access and the setting and installs the tap when both allow it. Never asks for access.
    explicit HotkeyService(DisplayController& controller, QObject* parent = nullptr);
    // Removes the tap first.
    ~HotkeyService() override;

    bool isEnabled() const { return isEnabled_; }
    bool isTrusted() const { return isTrusted_; }

    // The one way the setting changes: stores it, asks for access when switching on without it, reconciles.
    void setEnabled(bool enabled);
    // Asks for access: on Linux, starts the permission flow (a fixed helper, through pkexec, installs the udev rule
    // that lets this user read the keyboards and write /dev/uinput). The access, once granted, comes back through
    // the watch on the device nodes.
    void openAccessibilitySettings();

signals:
    void objectWillChange();
    void isEnabledChanged(bool enabled);
    void isTrustedChanged(bool trusted);
    // A key changed that display's brightness (for the on-screen display).
    void adjusted(std::uint32_t displayID);

private:
    void observeTrustChanges();
    void reconcile();
    void startTap();
    void stopTap();
    Q_INVOKABLE void takePresses();
    void pressArrived(std::uint64_t tapGeneration, const Platform::KeyPress& press);
    bool handle(const KeyEvent& event, bool option);
    bool readTrust() const;
    void assignEnabled(bool value);
    void assignTrusted(bool value);

    bool isEnabled_ = false;
    bool isTrusted_ = false;
    DisplayController& controller_;
    std::unique_ptr<Platform::KeyTap> eventTap_;
    std::uint64_t tapGeneration_ = 0;  // presses of a removed tap are dropped
    // Presses handed over by the capture threads, with their tap's generation: a queue under a lock of our own, so
    // that nothing of a press crosses threads inside Qt's posted events.
    std::mutex pressesMutex_;
    std::vector<std::pair<std::uint64_t, Platform::KeyPress>> presses_;
    std::unique_ptr<InputAccessWatcher> trustWatcher_;
};

}  // namespace Lumora
