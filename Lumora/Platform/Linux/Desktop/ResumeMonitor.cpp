// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/ResumeMonitor.h"

#include <QSocketNotifier>
#include <QTimer>

#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>

namespace Lumora {

struct ResumeSignals {
    // PrepareForSleep(b start): true before the machine sleeps, false once it has resumed.
    static int prepareForSleep(sd_bus_message* message, void* self, sd_bus_error*)
    {
        int start = 1;
        if (sd_bus_message_read(message, "b", &start) >= 0 && start == 0) {
            auto* monitor = static_cast<ResumeMonitor*>(self);
            if (monitor->onResume_) {
                monitor->onResume_();
            }
        }
        return 0;
    }

    static int subscribed(sd_bus_message* reply, void* self, sd_bus_error*)
    {
        static_cast<ResumeMonitor*>(self)->subscribed_ = !sd_bus_message_is_method_error(reply, nullptr);
        return 0;
    }
};

ResumeMonitor::ResumeMonitor(std::function<void()> onResume, QObject* parent)
    : QObject(parent), onResume_(std::move(onResume))
{
    // Opening starts the connection; authentication and the subscription complete as the event loop serves it.
    if (sd_bus_open_system(&bus_) < 0) {
        bus_ = nullptr;
        return;
    }
    if (sd_bus_match_signal_async(bus_, &match_, "org.freedesktop.login1", "/org/freedesktop/login1",
                                  "org.freedesktop.login1.Manager", "PrepareForSleep", &ResumeSignals::prepareForSleep,
                                  &ResumeSignals::subscribed, this) < 0) {
        close();
        return;
    }
    const int fd = sd_bus_get_fd(bus_);
    reading_ = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    writing_ = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    timeout_ = new QTimer(this);
    timeout_->setSingleShot(true);
    connect(reading_, &QSocketNotifier::activated, this, [this] { process(); });
    connect(writing_, &QSocketNotifier::activated, this, [this] { process(); });
    connect(timeout_, &QTimer::timeout, this, [this] { process(); });
    process();
}

ResumeMonitor::~ResumeMonitor()
{
    close();
}

void ResumeMonitor::process()
{
    if (bus_ == nullptr) {
        return;
    }
    for (;;) {
        const int r = sd_bus_process(bus_, nullptr);
        if (r < 0) {
            close();  // the bus went away
            return;
        }
        if (r == 0) {
            break;
        }
    }
    watch();
}

// What sd-bus waits for next: reading always, writing while it has something queued, and its own deadline.
void ResumeMonitor::watch()
{
    const int events = sd_bus_get_events(bus_);
    writing_->setEnabled(events > 0 && (events & POLLOUT) != 0);
    std::uint64_t deadline = 0;
    if (sd_bus_get_timeout(bus_, &deadline) < 0 || deadline == std::numeric_limits<std::uint64_t>::max()) {
        timeout_->stop();
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
    const std::uint64_t waitMs = deadline > nowUsec ? (deadline - nowUsec + 999) / 1000 : 0;
    timeout_->start(static_cast<int>(std::min<std::uint64_t>(waitMs, std::numeric_limits<int>::max())));
}

// May run inside a notifier's own signal: the notifiers and the timer go once it has returned.
void ResumeMonitor::close()
{
    for (QObject* watcher : std::initializer_list<QObject*>{reading_, writing_, timeout_}) {
        if (watcher != nullptr) {
            watcher->deleteLater();
        }
    }
    if (reading_ != nullptr) {
        reading_->setEnabled(false);
        writing_->setEnabled(false);
        timeout_->stop();
    }
    reading_ = writing_ = nullptr;
    timeout_ = nullptr;
    subscribed_ = false;
    match_ = sd_bus_slot_unref(match_);
    if (bus_ != nullptr) {
        bus_ = sd_bus_flush_close_unref(bus_);
    }
}

}  // namespace Lumora
