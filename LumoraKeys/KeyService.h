// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// lumora-keys: the small system service that owns the keyboards' brightness keys. It serves org.lumora.Keys on
// the system bus, object /org/lumora/Keys, interface org.lumora.Keys1:
//
//   Attach(h socket, b interactive)
//       The caller hands over its end of an AF_UNIX SOCK_SEQPACKET socket pair and from then on gets every
//       brightness-key press on it and answers each (KeyProtocol). Allowed when the caller's login session is the
//       active one on its seat and polkit allows org.lumora.keys.attach (`interactive`: polkit may ask for a
//       password). A newer attach replaces the attached client. Closing the socket detaches.
//       Errors: org.lumora.Keys1.Error.NotAuthorized, .NotActive, .BadSocket, .Unavailable.
//
// The devices are taken (KeyTap) only while a client is attached; with none, everything is let go and the service
// exits after `idleExit`. When the seat's active session changes away from the client's, the client is detached.
// A press goes to the client and waits at most KeyTap::decisionDeadline for its answer.

#include <chrono>

namespace Lumora::Keys {

struct KeyServiceOptions {
    std::chrono::milliseconds idleExit{10'000};
};

// Serves until idle; the process's exit status (0 after an idle exit, 1 when the bus or the name is not there).
int runKeyService(const KeyServiceOptions& options);

}  // namespace Lumora::Keys
