// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/LogindSession.h"

#include <systemd/sd-bus.h>

#include <mutex>

namespace Lumora::Platform::LogindSession {
namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kSessionPath = "/org/freedesktop/login1/session/auto";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";

// The process's one connection to the system bus. sd-bus objects are not thread-safe: every use holds `mutex`.
// The connection is kept for the life of the process (reachable from here, so never reported as a leak).
struct Connection {
    std::mutex mutex;
    sd_bus* bus = nullptr;
};

Connection& connection() {
    static Connection c;
    return c;
}

// Opens the connection if there is none; false when the bus cannot be reached. A failure is not remembered:
// a bus that appears later is picked up by the next call.
bool ensureOpen(Connection& c) {
    if (c.bus != nullptr && sd_bus_is_open(c.bus) > 0) {
        return true;
    }
    if (c.bus != nullptr) {
        c.bus = sd_bus_flush_close_unref(c.bus);
    }
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        return false;
    }
    c.bus = bus;
    return true;
}

// One SetBrightness call on the open connection; sd-bus's result (negative errno on failure).
int callSetBrightness(sd_bus* bus, const std::string& subsystem, const std::string& name, std::uint32_t value) {
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus, &call, kService, kSessionPath, kSessionInterface, "SetBrightness");
    if (r >= 0) {
        r = sd_bus_message_append(call, "ssu", subsystem.c_str(), name.c_str(), value);
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) {
        r = sd_bus_call(bus, call, callTimeoutUsec, &error, &reply);
    }
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_error_free(&error);
    return r;
}

}  // namespace

bool setBrightness(const std::string& subsystem, const std::string& name, std::uint32_t value) {
    Connection& c = connection();
    std::lock_guard<std::mutex> lock(c.mutex);
    const bool reused = c.bus != nullptr && sd_bus_is_open(c.bus) > 0;
    if (!ensureOpen(c)) {
        return false;
    }
    int r = callSetBrightness(c.bus, subsystem, name, value);
    if (r < 0 && sd_bus_is_open(c.bus) <= 0) {
        // The kept connection had gone stale (the bus daemon restarted since the last call): drop it and try once
        // more on a fresh one. A connection opened just now that fails is not retried.
        c.bus = sd_bus_flush_close_unref(c.bus);
        if (reused && ensureOpen(c)) {
            r = callSetBrightness(c.bus, subsystem, name, value);
            if (r < 0 && sd_bus_is_open(c.bus) <= 0) {
                c.bus = sd_bus_flush_close_unref(c.bus);
            }
        }
    }
    return r >= 0;
}

}  // namespace Lumora::Platform::LogindSession
