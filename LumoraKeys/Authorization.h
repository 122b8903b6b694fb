// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Who may have the brightness keys: a process of the active session on its seat (systemd-logind), allowed by the
// polkit action org.lumora.keys.attach (the active local user without a password, anyone else with an
// administrator's).

#include <systemd/sd-bus.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace Lumora::Keys::Authorization {

constexpr const char* polkitAction = "org.lumora.keys.attach";

struct Session {
    std::string path;  // the session's logind object
    std::string seat;  // its seat's logind object
};

// The login session of a process and its seat; nothing when logind knows no session for it or it has no seat.
std::optional<Session> sessionOf(sd_bus* bus, pid_t pid);

// Whether the session is the active one of its seat now.
bool isActive(sd_bus* bus, const Session& session);

// Asks polkit whether the bus peer `sender` may attach; `interactive` lets polkit ask for a password. The answer
// comes to `callback` as a reply to CheckAuthorization ((bba{ss}): authorized, challenge, details), or an error.
int checkAsync(sd_bus* bus, sd_bus_slot** slot, const char* sender, bool interactive,
               sd_bus_message_handler_t callback, void* userdata);

// Reads CheckAuthorization's reply: true only for an authorized answer.
bool isAuthorized(sd_bus_message* reply);

}  // namespace Lumora::Keys::Authorization
