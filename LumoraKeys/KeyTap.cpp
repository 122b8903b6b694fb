// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraKeys/KeyTap.h"

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "LumoraKeys/KeyDevices.h"

namespace Lumora::Keys {
namespace {

constexpr const char* uinputNode = "/dev/uinput";
// How the twins show themselves (EVIOCGPHYS), beside the device's own name.
constexpr const char* twinPhys = "lumora-keys";

using Clock = std::chrono::steady_clock;

constexpr unsigned bitsPerLong = sizeof(unsigned long) * CHAR_BIT;
using KeyBits = unsigned long[(KEY_MAX + bitsPerLong) / bitsPerLong];

// libevdev reports trouble on stderr by default; Lumora reports nothing.
void quiet(enum libevdev_log_priority, void*, const char*, int, const char*, const char*, va_list) {}
void quietDevice(const libevdev*, enum libevdev_log_priority, void*, const char*, int, const char*, const char*,
                 va_list)
{
}

bool isReport(const input_event& e)
{
    return e.type == EV_SYN && e.code == SYN_REPORT;
}

// The keys the kernel holds down on a device now (EVIOCGKEY).
bool readKeyState(int fd, KeyBits& bits)
{
    std::memset(bits, 0, sizeof bits);
    return ::ioctl(fd, EVIOCGKEY(sizeof bits), bits) >= 0;
}

bool anyKeyDown(const KeyBits& bits)
{
    return std::any_of(std::begin(bits), std::end(bits), [](unsigned long word) { return word != 0; });
}

bool altDown(const KeyBits& bits)
{
    const auto down = [&](unsigned code) { return ((bits[code / bitsPerLong] >> (code % bitsPerLong)) & 1UL) != 0; };
    return down(KEY_LEFTALT) || down(KEY_RIGHTALT);
}

// What happened to a press that was handed out.
enum class PressState {
    waiting,   // handed out, nobody has started deciding
    deciding,  // settle() is running the decision
    consumed,
    passed,    // decided to go on, or nobody decided in time
};

// A frame of events (up to and including SYN_REPORT) that waits behind an undecided press.
struct Frame {
    std::vector<input_event> events;
    std::vector<std::pair<std::size_t, std::uint64_t>> presses;  // index of the key event, press id
    Clock::time_point deadline;
};

// One device whose brightness keys the tap takes. Owned by the capture thread once it runs.
struct Device {
    std::string node;
    std::string syspath;
    int fd = -1;
    libevdev* evdev = nullptr;
    int uinputFd = -1;
    libevdev_uinput* clone = nullptr;
    std::string cloneSyspath;
    bool grabbed = false;
    bool lightsBack = false;             // the desktop's LED changes on the clone go back to the device
    bool broken = false;                 // its twin refused events: released at the next turn
    bool syncing = false;                // reading libevdev's resynchronisation after SYN_DROPPED
    std::vector<input_event> frame;      // the frame being read
    std::deque<Frame> waiting;           // frames behind an undecided press, oldest first
    std::vector<std::uint16_t> heldAway; // brightness keys whose press was consumed: their key-up stays here too

    ~Device()
    {
        if (evdev != nullptr && grabbed)
            libevdev_grab(evdev, LIBEVDEV_UNGRAB);
        if (clone != nullptr)
            libevdev_uinput_destroy(clone);
        if (uinputFd >= 0)
            ::close(uinputFd);
        if (evdev != nullptr)
            libevdev_free(evdev);
        if (fd >= 0)
            ::close(fd);
    }
};

}  // namespace

struct KeyTap::Impl {
    OnPress onPress;

    // Set up before the capture thread starts; then the capture thread's.
    int inotify = -1;
    int devWatch = -1;
    int inputWatch = -1;
    int wake = -1;  // eventfd: a decision came in, or the tap is stopping
    std::vector<std::unique_ptr<Device>> devices;
    std::vector<std::string> altKeyboards;  // nodes of the other devices with Alt, for Option
    std::thread thread;
    std::uint64_t nextPress = 1;

    // Shared with the deciding thread.
    mutable std::mutex mutex;
    std::unordered_map<std::uint64_t, PressState> presses;
    bool stopping = false;

    ~Impl()
    {
        if (thread.joinable()) {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                stopping = true;
            }
            signal();
            thread.join();
        }
        // What still waits goes on as it is, before the grabs go and the clones with them.
        for (auto& device : devices)
            flush(*device, true);
        devices.clear();
        if (wake >= 0)
            ::close(wake);
        if (inotify >= 0)
            ::close(inotify);
    }

    void signal() const
    {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wake, &one, sizeof one);
    }

    void watchInput()
    {
        if (inputWatch < 0)
            inputWatch = ::inotify_add_watch(inotify, "/dev/input", IN_CREATE | IN_ATTRIB | IN_MOVED_TO);
    }

    bool attached(const KeyDevice& found) const
    {
        return std::any_of(devices.begin(), devices.end(), [&](const auto& d) {
            return d->node == found.node && d->syspath == found.syspath;
        });
    }

    // Takes every real device with brightness keys not taken yet. One that cannot be opened or cloned is left to
    // the desktop; the others are taken all the same.
    void scan()
    {
        altKeyboards.clear();
        for (const KeyDevice& device : KeyDevices::list()) {
            if (device.seat != KeyTap::servedSeat)
                continue;  // another seat's user types on it: neither taken nor looked at
            if (device.keys.hasAlt() && !isOwnTwin(device))
                altKeyboards.push_back(device.node);
            if (!device.keys.hasBrightnessKeys() || device.isVirtual || attached(device))
                continue;
            attach(device);
        }
    }

    bool isOwnTwin(const KeyDevice& found) const
    {
        return std::any_of(devices.begin(), devices.end(), [&](const auto& d) { return d->cloneSyspath == found.syspath; });
    }

    // Opens the device, makes its clone and grabs it as soon as no key is held. 0, or the errno that stopped it.
    int attach(const KeyDevice& found)
    {
        auto device = std::make_unique<Device>();
        device->node = found.node;
        device->syspath = found.syspath;
        // Read and write where allowed (the keyboard's lights are set by writing), else read only.
        device->fd = ::open(found.node.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        const bool writable = device->fd >= 0;
        if (!writable)
            device->fd = ::open(found.node.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (device->fd < 0)
            return errno;
        if (const int error = libevdev_new_from_fd(device->fd, &device->evdev); error < 0)
            return -error;
        libevdev_set_device_log_function(device->evdev, quietDevice, LIBEVDEV_LOG_ERROR, nullptr);
        // The clone repeats nothing of its own accord: the device's own auto-repeats are passed on as they come.
        libevdev_disable_event_type(device->evdev, EV_REP);
        libevdev_set_phys(device->evdev, twinPhys);
        device->uinputFd = ::open(uinputNode, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (device->uinputFd < 0)
            return errno;
        if (const int error = libevdev_uinput_create_from_device(device->evdev, device->uinputFd, &device->clone);
            error < 0)
            return -error;
        // Without its place in sysfs the clone could not be told from a keyboard, and would be taken in turn.
        const char* syspath = libevdev_uinput_get_syspath(device->clone);
        if (syspath == nullptr || *syspath == '\0')
            return ENODEV;
        device->cloneSyspath = syspath;
        device->lightsBack = writable && libevdev_has_event_type(device->evdev, EV_LED);
        if (!startInDevicesState(*device))
            return EIO;
        tryGrab(*device);
        devices.push_back(std::move(device));
        return 0;
    }

    void detach(Device& device)
    {
        flush(device, true);
        std::erase_if(devices, [&](const auto& d) { return d.get() == &device; });
    }

    // A new uinput device has every switch open and every light off. The twin takes the device's switches (a dock,
    // tablet mode, the lid on some hotkey devices) and lights now: logind would otherwise see the next real change
    // of a switch as no change at all.
    bool startInDevicesState(Device& device)
    {
        std::vector<input_event> state;
        for (const unsigned type : {unsigned(EV_SW), unsigned(EV_LED)}) {
            if (!libevdev_has_event_type(device.evdev, type))
                continue;
            const int max = libevdev_event_type_get_max(type);
            for (int code = 0; code <= max; ++code) {
                if (libevdev_has_event_code(device.evdev, type, unsigned(code)) &&
                    libevdev_get_event_value(device.evdev, type, unsigned(code)) != 0)
                    state.push_back(input_event{{}, std::uint16_t(type), std::uint16_t(code), 1});
            }
        }
        if (state.empty())
            return true;
        state.push_back(input_event{{}, EV_SYN, SYN_REPORT, 0});
        return forward(device, state);
    }

    // Takes the device once nothing is held on it, so that no key goes down on the desktop and up on the clone.
    // Called when everything queued on the device has been read.
    void tryGrab(Device& device)
    {
        if (device.grabbed)
            return;
        for (unsigned code = 0; code <= KEY_MAX; ++code) {
            if (libevdev_get_event_value(device.evdev, EV_KEY, code) != 0)
                return;
        }
        if (libevdev_grab(device.evdev, LIBEVDEV_GRAB) != 0)
            return;  // someone else holds it; its keys stay theirs
        // A key that went down between the look and the grab reached the desktop: let it come up there first.
        KeyBits held;
        if (!readKeyState(device.fd, held) || anyKeyDown(held)) {
            libevdev_grab(device.evdev, LIBEVDEV_UNGRAB);
            return;
        }
        device.grabbed = true;
    }

    bool optionHeld(const Device& device) const
    {
        if (libevdev_get_event_value(device.evdev, EV_KEY, KEY_LEFTALT) != 0 ||
            libevdev_get_event_value(device.evdev, EV_KEY, KEY_RIGHTALT) != 0)
            return true;
        for (const std::string& node : altKeyboards) {
            if (node == device.node)
                continue;
            KeyBits held;
            const auto own = std::find_if(devices.begin(), devices.end(), [&](const auto& d) { return d->node == node; });
            if (own != devices.end()) {
                if (readKeyState((*own)->fd, held) && altDown(held))
                    return true;
                continue;
            }
            const int fd = ::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            if (fd < 0)
                continue;
            const bool down = readKeyState(fd, held) && altDown(held);
            ::close(fd);
            if (down)
                return true;
        }
        return false;
    }

    // False when the twin took less than everything: the device must be released.
    bool forward(Device& device, const std::vector<input_event>& events)
    {
        if (events.empty())
            return true;
        const char* data = reinterpret_cast<const char*>(events.data());
        std::size_t size = events.size() * sizeof(input_event);
        while (size > 0) {
            const ssize_t n = ::write(libevdev_uinput_get_fd(device.clone), data, size);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            data += n;
            size -= static_cast<std::size_t>(n);
        }
        return true;
    }

    // The desktop sets the keyboard's lights (Caps Lock, Num Lock) on the clone, which it takes for the keyboard:
    // they go on to the device itself.
    void passLightsBack(Device& device)
    {
        input_event events[32];
        for (;;) {
            const ssize_t n = ::read(device.uinputFd, events, sizeof events);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN)
                return;
            if (n <= 0) {
                device.lightsBack = false;  // this uinput gives nothing back
                return;
            }
            std::vector<input_event> lights;
            for (std::size_t i = 0; i < std::size_t(n) / sizeof(input_event); ++i) {
                if (events[i].type == EV_LED)
                    lights.push_back(events[i]);
            }
            if (lights.empty())
                continue;
            lights.push_back(input_event{{}, EV_SYN, SYN_REPORT, 0});
            [[maybe_unused]] const ssize_t written = ::write(device.fd, lights.data(), lights.size() * sizeof(input_event));
        }
    }

    // A whole frame has been read from a grabbed device: it goes on at once unless it holds a brightness press or
    // something older still waits.
    void frameRead(Device& device)
    {
        Frame frame;
        frame.events = std::move(device.frame);
        device.frame.clear();
        for (std::size_t i = 0; i < frame.events.size(); ++i) {
            const input_event& e = frame.events[i];
            const KeyEvent event{e.type, e.code, e.value};
            if (!KeyEventDecision::isBrightnessPress(event))
                continue;
            const std::uint64_t id = nextPress++;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                presses.emplace(id, PressState::waiting);
            }
            frame.presses.emplace_back(i, id);
            if (!onPress(KeyPress{id, event, optionHeld(device)})) {
                const std::lock_guard<std::mutex> lock(mutex);
                presses[id] = PressState::passed;
            }
        }
        if (frame.presses.empty() && device.waiting.empty()) {
            send(device, frame.events, {});
            return;
        }
        frame.deadline = Clock::now() + decisionDeadline;
        device.waiting.push_back(std::move(frame));
        flush(device, false);
    }

    // Sends on every waiting frame whose presses are decided, oldest first, leaving out consumed keys with their
    // scan codes. `all`: the tap is going away; what is undecided goes on.
    void flush(Device& device, bool all)
    {
        const Clock::time_point now = Clock::now();
        while (!device.waiting.empty()) {
            Frame& frame = device.waiting.front();
            std::vector<std::size_t> consumed;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                for (const auto& [index, id] : frame.presses) {
                    PressState& state = presses[id];
                    if (state == PressState::waiting && (all || now >= frame.deadline))
                        state = PressState::passed;  // too late: the key goes on
                    if (state == PressState::deciding && all)
                        state = PressState::passed;
                    if (state == PressState::waiting || state == PressState::deciding)
                        return;
                }
                for (const auto& [index, id] : frame.presses) {
                    if (presses[id] == PressState::consumed)
                        consumed.push_back(index);
                    presses.erase(id);
                }
            }
            if (device.clone != nullptr && device.grabbed)
                send(device, frame.events, consumed);
            device.waiting.pop_front();
        }
    }

    // Sends a frame on to the twin, leaving out the consumed presses (by index) and the key-ups of brightness keys
    // whose press was consumed, each with its scan code: the desktop never saw those keys go down. A press that goes
    // on puts its key back in the desktop's hands.
    void send(Device& device, const std::vector<input_event>& events, const std::vector<std::size_t>& consumed)
    {
        std::vector<bool> dropped(events.size(), false);
        for (std::size_t i = 0; i < events.size(); ++i) {
            const input_event& e = events[i];
            if (e.type != EV_KEY)
                continue;
            const auto held = std::find(device.heldAway.begin(), device.heldAway.end(), e.code);
            if (std::find(consumed.begin(), consumed.end(), i) != consumed.end()) {
                dropped[i] = true;
                if (e.value == InputCode::valueDown && held == device.heldAway.end())
                    device.heldAway.push_back(e.code);
            } else if (held != device.heldAway.end() && e.value != InputCode::valueRepeat) {
                dropped[i] = e.value == InputCode::valueUp;
                device.heldAway.erase(held);
            }
            if (dropped[i] && i > 0 && events[i - 1].type == EV_MSC && events[i - 1].code == MSC_SCAN)
                dropped[i - 1] = true;
        }
        std::vector<input_event> out;
        bool content = false;
        for (std::size_t i = 0; i < events.size(); ++i) {
            if (dropped[i])
                continue;
            out.push_back(events[i]);
            content = content || !isReport(events[i]);
        }
        if (content)
            device.broken = device.broken || !forward(device, out);
    }

    // Reads what the device has. False when the device is gone.
    bool read(Device& device)
    {
        for (;;) {
            input_event e{};
            const unsigned flags = device.syncing ? LIBEVDEV_READ_FLAG_SYNC : LIBEVDEV_READ_FLAG_NORMAL;
            const int status = libevdev_next_event(device.evdev, flags, &e);
            if (status == -EAGAIN) {
                if (device.syncing) {
                    device.syncing = false;
                    continue;
                }
                tryGrab(device);
                return true;
            }
            if (status < 0)
                return status == -EINTR;
            if (status == LIBEVDEV_READ_STATUS_SYNC && !device.syncing) {
                // SYN_DROPPED: the frame being read is incomplete; libevdev's resynchronisation follows.
                device.syncing = true;
                device.frame.clear();
                continue;
            }
            if (!device.grabbed)
                continue;  // these reach the desktop from the device itself; libevdev keeps its state
            device.frame.push_back(e);
            if (isReport(e))
                frameRead(device);
        }
    }

    std::chrono::milliseconds untilNextDeadline() const
    {
        std::optional<Clock::time_point> earliest;
        for (const auto& device : devices) {
            if (!device->waiting.empty() && (!earliest || device->waiting.front().deadline < *earliest))
                earliest = device->waiting.front().deadline;
        }
        if (!earliest)
            return std::chrono::milliseconds(-1);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*earliest - Clock::now());
        return std::max(left, std::chrono::milliseconds(0));
    }

    bool readWatch()
    {
        alignas(inotify_event) char buffer[8 * 1024];
        bool changed = false;
        for (;;) {
            const ssize_t length = ::read(inotify, buffer, sizeof buffer);
            if (length < 0 && errno == EINTR)
                continue;
            if (length <= 0)
                return changed;
            for (ssize_t at = 0; at < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                if (event->wd == devWatch && event->len > 0 && std::strcmp(event->name, "input") == 0)
                    watchInput();
                if (event->wd == inputWatch && (event->mask & IN_IGNORED) != 0)
                    inputWatch = -1;
                changed = true;
            }
        }
    }

    void run()
    {
        for (;;) {
            std::vector<pollfd> fds{{wake, POLLIN, 0}, {inotify, POLLIN, 0}};
            std::vector<std::pair<Device*, bool>> polled;  // the device, and whether it is its clone's descriptor
            for (const auto& device : devices) {
                fds.push_back({device->fd, POLLIN, 0});
                polled.emplace_back(device.get(), false);
                if (device->lightsBack) {
                    fds.push_back({device->uinputFd, POLLIN, 0});
                    polled.emplace_back(device.get(), true);
                }
            }
            const int timeout = static_cast<int>(untilNextDeadline().count());
            if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
                // Nothing can be read any more: every device goes back to the desktop now, not when the tap goes.
                while (!devices.empty())
                    detach(*devices.back());
                return;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                std::uint64_t count = 0;
                [[maybe_unused]] const ssize_t n = ::read(wake, &count, sizeof count);
                const std::lock_guard<std::mutex> lock(mutex);
                if (stopping)
                    return;
            }
            // Devices first: what they hold was typed before anything the watch reports.
            std::vector<Device*> gone;
            for (std::size_t i = 2; i < fds.size(); ++i) {
                auto [device, clone] = polled[i - 2];
                if (std::find(gone.begin(), gone.end(), device) != gone.end())
                    continue;
                if (clone && (fds[i].revents & POLLIN) != 0)
                    passLightsBack(*device);
                else if (clone && (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
                    device->lightsBack = false;
                else if (!clone && (fds[i].revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) != 0 && !read(*device))
                    gone.push_back(device);
            }
            for (const auto& device : devices)
                flush(*device, false);
            for (const auto& device : devices) {
                if (device->broken && std::find(gone.begin(), gone.end(), device.get()) == gone.end())
                    gone.push_back(device.get());
            }
            for (Device* device : gone)
                detach(*device);
            if ((fds[1].revents & POLLIN) != 0 && readWatch())
                scan();
        }
    }
};

std::unique_ptr<KeyTap> KeyTap::create(OnPress onPress)
{
    static std::once_flag quietLibrary;
    std::call_once(quietLibrary, [] { libevdev_set_log_function(quiet, nullptr); });

    auto impl = std::make_unique<Impl>();
    impl->onPress = std::move(onPress);
    // Clones are made as devices come; without /dev/uinput there could be none.
    const int uinput = ::open(uinputNode, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (uinput < 0)
        return nullptr;
    ::close(uinput);
    impl->inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    impl->wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (impl->inotify < 0 || impl->wake < 0)
        return nullptr;
    // Watch first, then look: a keyboard that comes in between is seen either way.
    impl->devWatch = ::inotify_add_watch(impl->inotify, "/dev", IN_CREATE | IN_MOVED_TO);
    impl->watchInput();
    impl->scan();
    Impl* running = impl.get();
    impl->thread = std::thread([running] {
        ::pthread_setname_np(::pthread_self(), "lumora-keys");  // as `top -H` and debuggers show it
        running->run();
    });
    return std::unique_ptr<KeyTap>(new KeyTap(std::move(impl)));
}

KeyTap::KeyTap(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

KeyTap::~KeyTap() = default;

bool KeyTap::settle(std::uint64_t press, const std::function<bool()>& decide)
{
    {
        const std::lock_guard<std::mutex> lock(impl_->mutex);
        const auto it = impl_->presses.find(press);
        if (it == impl_->presses.end() || it->second != PressState::waiting)
            return false;
        it->second = PressState::deciding;
    }
    const bool consumed = decide();
    {
        const std::lock_guard<std::mutex> lock(impl_->mutex);
        const auto it = impl_->presses.find(press);
        if (it != impl_->presses.end())
            it->second = consumed ? PressState::consumed : PressState::passed;
    }
    impl_->signal();
    return true;
}

}  // namespace Lumora::Keys
