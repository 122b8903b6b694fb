#include "Lumora/Platform/Linux/Desktop/InputAccessWatcher.h"

#include <QSocketNotifier>

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Lumora {
namespace {

// devtmpfs creates and removes the nodes; udev and logind change their modes, owners and access lists.
constexpr std::uint32_t changes = IN_ATTRIB | IN_CREATE | IN_DELETE;

}  // namespace

InputAccessWatcher::InputAccessWatcher(std::function<void()> onChange, QObject* parent)
    : QObject(parent), onChange_(std::move(onChange))
{
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0)
        return;
    devWatch_ = ::inotify_add_watch(inotify_, "/dev", changes);
    watchInputDirectory();
    notifier_ = new QSocketNotifier(inotify_, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] { readEvents(); });
}

InputAccessWatcher::~InputAccessWatcher()
{
    delete notifier_;
    if (inotify_ >= 0)
        ::close(inotify_);
}

void InputAccessWatcher::watchInputDirectory()
{
    if (inputWatch_ < 0)
        inputWatch_ = ::inotify_add_watch(inotify_, "/dev/input", changes);
}

void InputAccessWatcher::readEvents()
{
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t length = ::read(inotify_, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return;
        int notifications = 0;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            const char* name = event->len > 0 ? event->name : "";
            if (event->wd == devWatch_ && std::strcmp(name, "input") == 0) {
                watchInputDirectory();
                ++notifications;
            } else if (event->wd == devWatch_ && std::strcmp(name, "uinput") == 0) {
                ++notifications;
            } else if (event->wd == inputWatch_ && std::strncmp(name, "event", 5) == 0) {
                ++notifications;
            } else if (event->wd == inputWatch_ && (event->mask & IN_IGNORED) != 0) {
                inputWatch_ = -1;  // /dev/input went away; its return is seen on /dev
            }
        }
        for (int i = 0; i < notifications; ++i)
            onChange_();
    }
}

}  // namespace Lumora
