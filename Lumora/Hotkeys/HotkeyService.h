// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Makes the keyboard's brightness keys act on the external monitor the user works on (DisplayInUse): F1 one
// sixteenth darker, F2 one sixteenth brighter; with Option (Alt) held, F1 puts that monitor into standby (0.0) and
// F2 wakes it at full brightness (1.0). Keys that concern the built-in panel, and every other key, go on to the
// desktop unchanged.
//
// The feature is off until the user switches it on; the switch is kept in the settings under
// "useF1F2ForExternalBrightness". The keyboards belong to the key service (lumora-keys, a system service); Lumora
// attaches to it and from then on is handed the brightness-key presses, and nothing else, while its session is the
// active one. "Trusted" means attached. The service follows the setting and the authorization, asks for the keys
// (polkit may ask for a password) when the user switches the feature on without them, and attaches or detaches
// whenever the setting or the authorization changes:
//
//   isEnabled  isTrusted   attached
//   false      false       no     (off)
//   true       false       no     (waiting for permission: not allowed, not the active session, no service)
//   true       true        yes    (active)
//
// Main thread only. Observers: objectWillChange() before, and isEnabledChanged() / isTrustedChanged() right after,
// every assignment of a published field, also when the value does not change.

#include <QObject>

#include <memory>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora {

class DisplayController;
class KeyServiceClient;
class KeyServiceWatcher;

class HotkeyService : public QObject {
    Q_OBJECT

public:
    static constexpr const char* settingsKey = "useF1F2ForExternalBrightness";
    // A change of access is looked at this long after it was noticed (the desktop applies a grant in steps).
    static constexpr int trustRecheckDelayMs = 500;

    // Reads the setting and attaches when it is on. Never lets polkit ask.
    explicit HotkeyService(DisplayController& controller, QObject* parent = nullptr);
    // Detaches first.
    ~HotkeyService() override;

    bool isEnabled() const { return isEnabled_; }
    bool isTrusted() const { return isTrusted_; }

    // The one way the setting changes: stores it, asks for the keys when switching on without them (polkit may ask
    // for a password), reconciles.
    void setEnabled(bool enabled);
    // Asks for the keys again, letting polkit ask for a password. The outcome comes back as isTrusted.
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
    bool handle(const KeyEvent& event, bool option);
    bool readTrust() const;
    void assignEnabled(bool value);
    void assignTrusted(bool value);

    bool isEnabled_ = false;
    bool isTrusted_ = false;
    DisplayController& controller_;
    // The key service: attached exactly while the tap is installed.
    std::unique_ptr<KeyServiceClient> eventTap_;
    std::unique_ptr<KeyServiceWatcher> trustWatcher_;
};

}  // namespace Lumora
