// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraKeys/KeyService.h"

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "LumoraKeys/AttachedClient.h"
#include "LumoraKeys/Authorization.h"
#include "LumoraKeys/KeyTap.h"

namespace Lumora::Keys {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* busName = "org.lumora.Keys";
constexpr const char* objectPath = "/org/lumora/Keys";
constexpr const char* interfaceName = "org.lumora.Keys1";

struct Service;

// An Attach call that waits for polkit's answer.
struct PendingAttach {
    Service* service = nullptr;
    sd_bus_message* call = nullptr;  // referenced until answered
    sd_bus_slot* slot = nullptr;
    int socket = -1;
    pid_t pid = 0;

    ~PendingAttach()
    {
        sd_bus_slot_unref(slot);
        sd_bus_message_unref(call);
        if (socket >= 0)
            ::close(socket);
    }
};

struct Service {
    sd_bus* bus = nullptr;
    KeyServiceOptions options;
    std::unique_ptr<KeyTap> tap;
    // Read by the capture thread (presses), replaced on the main thread.
    std::mutex clientMutex;
    std::shared_ptr<AttachedClient> client;
    std::vector<std::unique_ptr<PendingAttach>> pending;
    Clock::time_point idleSince = Clock::now();

    std::shared_ptr<AttachedClient> current()
    {
        const std::lock_guard<std::mutex> lock(clientMutex);
        return client;
    }

    // Capture thread: hands the press to the client, or passes it on at once when there is nobody to ask.
    bool pressed(const KeyPress& press)
    {
        const std::shared_ptr<AttachedClient> to = current();
        return to != nullptr && to->send(KeyProtocol::Press{press.id, press.event, press.option});
    }

    bool attach(std::unique_ptr<AttachedClient> attached)
    {
        if (tap == nullptr) {
            tap = KeyTap::create([this](const KeyPress& press) { return pressed(press); });
            if (tap == nullptr)
                return false;
        }
        const std::lock_guard<std::mutex> lock(clientMutex);
        client = std::move(attached);
        return true;
    }

    // Nobody wants the keys: every device goes back to the desktop.
    void detach()
    {
        {
            const std::lock_guard<std::mutex> lock(clientMutex);
            client.reset();
        }
        tap.reset();
        idleSince = Clock::now();
    }

    void decisionsArrived()
    {
        const std::shared_ptr<AttachedClient> from = current();
        const auto decisions = from->receive();
        if (!decisions) {
            detach();
            return;
        }
        for (const KeyProtocol::Decision& decision : *decisions)
            tap->settle(decision.id, [&] { return decision.consume; });
    }

    void seatsChanged()
    {
        const std::shared_ptr<AttachedClient> attached = current();
        if (attached != nullptr && !Authorization::isActive(bus, {attached->session(), attached->seat()}))
            detach();
    }

    void answered(PendingAttach& request, sd_bus_message* reply)
    {
        sd_bus_message* call = request.call;
        if (!Authorization::isAuthorized(reply)) {
            sd_bus_reply_method_errorf(call, "org.lumora.Keys1.Error.NotAuthorized",
                                       "Not authorized to receive the brightness keys (polkit action %s)",
                                       Authorization::polkitAction);
            return;
        }
        // Checked again now: the user may have switched sessions while polkit asked.
        const std::optional<Authorization::Session> session = Authorization::sessionOf(bus, request.pid);
        if (!session || !Authorization::isActive(bus, *session)) {
            sd_bus_reply_method_errorf(call, "org.lumora.Keys1.Error.NotActive",
                                       "The brightness keys go only to the active session of a seat");
            return;
        }
        auto attached = std::make_unique<AttachedClient>(request.socket, session->path, session->seat);
        request.socket = -1;
        if (!attach(std::move(attached))) {
            sd_bus_reply_method_errorf(call, "org.lumora.Keys1.Error.Unavailable",
                                       "The key service cannot create virtual keyboards (/dev/uinput)");
            return;
        }
        sd_bus_reply_method_return(call, "");
    }

    bool idle() const { return tap == nullptr && pending.empty(); }

    std::optional<Clock::time_point> idleExitAt() const
    {
        if (!idle())
            return std::nullopt;
        return idleSince + options.idleExit;
    }
};

int onPolkitAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*)
{
    auto* request = static_cast<PendingAttach*>(userdata);
    Service& service = *request->service;
    service.answered(*request, reply);
    std::erase_if(service.pending, [&](const auto& p) { return p.get() == request; });
    if (service.idle())
        service.idleSince = Clock::now();
    return 0;
}

int onAttach(sd_bus_message* call, void* userdata, sd_bus_error* error)
{
    auto& service = *static_cast<Service*>(userdata);
    int fd = -1;
    int interactive = 0;
    if (const int r = sd_bus_message_read(call, "hb", &fd, &interactive); r < 0)
        return r;
    if (!AttachedClient::isUsableSocket(fd))
        return sd_bus_error_set(error, "org.lumora.Keys1.Error.BadSocket",
                                "Attach takes one end of an AF_UNIX SOCK_SEQPACKET socket pair");
    sd_bus_creds* creds = nullptr;
    pid_t pid = 0;
    const int r = sd_bus_query_sender_creds(call, SD_BUS_CREDS_PID, &creds);
    if (r >= 0)
        sd_bus_creds_get_pid(creds, &pid);
    sd_bus_creds_unref(creds);
    if (pid <= 0)
        return sd_bus_error_set(error, "org.lumora.Keys1.Error.NotActive", "The caller's process is not known");
    // Refused at once when the caller is not in the active session: polkit is not asked to show anything then.
    const std::optional<Authorization::Session> session = Authorization::sessionOf(service.bus, pid);
    if (!session || !Authorization::isActive(service.bus, *session))
        return sd_bus_error_set(error, "org.lumora.Keys1.Error.NotActive",
                                "The brightness keys go only to the active session of a seat");
    if (session->seat != "/org/freedesktop/login1/seat/" + std::string(KeyTap::servedSeat))
        return sd_bus_error_set(error, "org.lumora.Keys1.Error.OtherSeat",
                                "The brightness keys are served on seat0 only");

    auto request = std::make_unique<PendingAttach>();
    request->service = &service;
    request->call = sd_bus_message_ref(call);
    request->pid = pid;
    request->socket = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (request->socket < 0)
        return -errno;
    ::fcntl(request->socket, F_SETFL, ::fcntl(request->socket, F_GETFL) | O_NONBLOCK);
    if (const int c = Authorization::checkAsync(service.bus, &request->slot, sd_bus_message_get_sender(call),
                                                interactive != 0, onPolkitAnswer, request.get());
        c < 0)
        return c;
    service.pending.push_back(std::move(request));
    return 1;
}

int onSeatChanged(sd_bus_message*, void* userdata, sd_bus_error*)
{
    static_cast<Service*>(userdata)->seatsChanged();
    return 0;
}

const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Attach", "hb", "", onAttach, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int millisecondsUntil(std::optional<Clock::time_point> at)
{
    if (!at)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*at - Clock::now()).count();
    return int(std::clamp<long long>(left, 0, 24 * 3600 * 1000));
}

// sd-bus's next timeout (absolute, CLOCK_MONOTONIC microseconds) as a point on our clock.
std::optional<Clock::time_point> busTimeout(sd_bus* bus)
{
    std::uint64_t at = 0;
    if (sd_bus_get_timeout(bus, &at) < 0 || at == UINT64_MAX)
        return std::nullopt;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::int64_t nowUs = std::int64_t(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
    return Clock::now() + std::chrono::microseconds(std::max<std::int64_t>(0, std::int64_t(at) - nowUs));
}

}  // namespace

int runKeyService(const KeyServiceOptions& options)
{
    Service service;
    service.options = options;
    if (sd_bus_open_system(&service.bus) < 0) {
        std::fprintf(stderr, "lumora-keys: cannot connect to the system bus\n");
        return 1;
    }
    sd_bus_slot* object = nullptr;
    sd_bus_slot* match = nullptr;
    int r = sd_bus_add_object_vtable(service.bus, &object, objectPath, interfaceName, vtable, &service);
    if (r >= 0) {
        r = sd_bus_add_match(service.bus, &match,
                             "type='signal',sender='org.freedesktop.login1',interface='org.freedesktop.DBus.Properties',"
                             "member='PropertiesChanged',arg0='org.freedesktop.login1.Seat'",
                             onSeatChanged, &service);
    }
    if (r >= 0)
        r = sd_bus_request_name(service.bus, busName, 0);
    if (r < 0) {
        std::fprintf(stderr, "lumora-keys: cannot serve %s on the system bus\n", busName);
        sd_bus_slot_unref(match);
        sd_bus_slot_unref(object);
        sd_bus_flush_close_unref(service.bus);
        return 1;
    }

    for (;;) {
        while ((r = sd_bus_process(service.bus, nullptr)) > 0) {
        }
        if (r < 0)
            break;  // the bus went away: nothing can attach or decide any more
        const std::optional<Clock::time_point> exitAt = service.idleExitAt();
        if (exitAt && Clock::now() >= *exitAt)
            break;
        std::optional<Clock::time_point> wakeAt = busTimeout(service.bus);
        if (exitAt && (!wakeAt || *exitAt < *wakeAt))
            wakeAt = exitAt;
        const std::shared_ptr<AttachedClient> client = service.current();
        pollfd fds[2] = {{sd_bus_get_fd(service.bus), short(sd_bus_get_events(service.bus)), 0},
                         {client != nullptr ? client->fd() : -1, POLLIN, 0}};
        if (::poll(fds, 2, millisecondsUntil(wakeAt)) < 0 && errno != EINTR)
            break;
        if (client != nullptr && (fds[1].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0 &&
            client == service.current())
            service.decisionsArrived();
    }
    // Leaves the name first, so that the next attach starts a new instance instead of waiting on this one.
    sd_bus_release_name(service.bus, busName);
    service.detach();
    service.pending.clear();
    sd_bus_slot_unref(match);
    sd_bus_slot_unref(object);
    sd_bus_flush_close_unref(service.bus);
    return r < 0 ? 1 : 0;
}

}  // namespace Lumora::Keys
