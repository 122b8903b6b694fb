// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraKeys/Authorization.h"

#include <cstdint>

namespace Lumora::Keys::Authorization {
namespace {

constexpr const char* logind = "org.freedesktop.login1";
// An interactive check waits for the user at polkit's password dialog.
constexpr std::uint64_t interactiveTimeoutUs = 300'000'000;
constexpr std::uint64_t quietTimeoutUs = 25'000'000;

// A property of type (so), the object path part.
std::optional<std::string> objectProperty(sd_bus* bus, const std::string& path, const char* interface,
                                          const char* name)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    std::optional<std::string> result;
    if (sd_bus_get_property(bus, logind, path.c_str(), interface, name, &error, &reply, "(so)") >= 0) {
        const char* id = nullptr;
        const char* object = nullptr;
        if (sd_bus_message_read(reply, "(so)", &id, &object) > 0 && object != nullptr && std::string(object) != "/")
            result = object;
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return result;
}

}  // namespace

std::optional<Session> sessionOf(sd_bus* bus, pid_t pid)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    std::optional<std::string> path;
    if (sd_bus_call_method(bus, logind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "GetSessionByPID", &error, &reply, "u", std::uint32_t(pid)) >= 0) {
        const char* object = nullptr;
        if (sd_bus_message_read(reply, "o", &object) > 0)
            path = object;
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (!path)
        return std::nullopt;
    const std::optional<std::string> seat = objectProperty(bus, *path, "org.freedesktop.login1.Session", "Seat");
    if (!seat)
        return std::nullopt;
    return Session{*path, *seat};
}

bool isActive(sd_bus* bus, const Session& session)
{
    return objectProperty(bus, session.seat, "org.freedesktop.login1.Seat", "ActiveSession") == session.path;
}

int checkAsync(sd_bus* bus, sd_bus_slot** slot, const char* sender, bool interactive,
               sd_bus_message_handler_t callback, void* userdata)
{
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus, &call, "org.freedesktop.PolicyKit1",
                                           "/org/freedesktop/PolicyKit1/Authority",
                                           "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
    if (r >= 0) {
        // Subject: the caller's bus name; no details; flag 1 lets polkit ask; no cancellation id.
        r = sd_bus_message_append(call, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s", sender, polkitAction,
                                  0, std::uint32_t(interactive ? 1 : 0), "");
    }
    if (r >= 0)
        r = sd_bus_call_async(bus, slot, call, callback, userdata, interactive ? interactiveTimeoutUs : quietTimeoutUs);
    sd_bus_message_unref(call);
    return r;
}

bool isAuthorized(sd_bus_message* reply)
{
    if (sd_bus_message_is_method_error(reply, nullptr))
        return false;
    int authorized = 0;
    int challenge = 0;
    if (sd_bus_message_enter_container(reply, 'r', "bba{ss}") <= 0)
        return false;
    return sd_bus_message_read(reply, "bb", &authorized, &challenge) > 0 && authorized != 0;
}

}  // namespace Lumora::Keys::Authorization
