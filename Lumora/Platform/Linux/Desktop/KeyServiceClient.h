// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The tray application's end of the key service (lumora-keys, on the system bus as org.lumora.Keys): attaches with
// one end of a socket pair, then decides each brightness-key press the service hands over and answers at once.
// Lumora sees nothing but those presses; the keyboards themselves stay with the service.
//
// Main thread only: presses are read and decided on the thread of the Qt event loop that created the client.

#include <QObject>

#include <functional>

#include "LumoraCore/KeyProtocol.h"

class QSocketNotifier;

namespace Lumora {

class KeyServiceClient : public QObject {
    Q_OBJECT
public:
    // `decide` answers one press: true consumes it, false lets it go on to the desktop.
    explicit KeyServiceClient(std::function<bool(const KeyProtocol::Press&)> decide, QObject* parent = nullptr);
    ~KeyServiceClient() override;

    bool isAttached() const { return socket_ >= 0 && !attaching_; }
    bool isAttaching() const { return attaching_; }
    // The last attach found no key service on the bus (not installed, or it could not be started).
    bool foundNoService() const { return foundNoService_; }

    // Asks the service for the keys (starting it when it is not running); `interactive` lets polkit ask the user
    // for a password. Returns at once; attachedChanged() tells the outcome. Nothing while attached; while a quiet
    // attempt is under way, an interactive one follows it if it fails.
    void attach(bool interactive);
    // Gives the keys back at once (the service lets the keyboards go when nobody wants them).
    void detach();

signals:
    // An attach finished, either way, or the service dropped the link (it went away, or the session stopped being
    // the active one). Not emitted by detach().
    void attachedChanged(bool attached);
    // The service dropped the link (right after attachedChanged(false)): the authorization may have changed.
    void dropped();

private:
    void readPresses();
    void dropLink();

    std::function<bool(const KeyProtocol::Press&)> decide_;
    int socket_ = -1;
    bool attaching_ = false;
    unsigned attempt_ = 0;  // an answer to an attach that detach() gave up is ignored
    bool askAgain_ = false;
    bool foundNoService_ = false;  // an interactive attach was asked for while a quiet one was under way
    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace Lumora
