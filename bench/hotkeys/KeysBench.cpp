// SPDX-License-Identifier: GPL-3.0-or-later
// The brightness keys' figures on the virtual desk (emulated keyboards, uinput and DDC/CI monitors; lumora-keys
// started by a private system bus with stand-ins for logind and polkit; the real HotkeyService and controller; an
// offscreen desktop whose screens stand where the desk's connectors do), printed as a table:
//
//   - a brightness key pressed on the laptop keyboard with the cursor on the DELL, until the first byte of its
//     Set VCP Feature is on the wire (the DDC/CI transaction pauses 10 ms before it writes);
//   - a letter pressed on the laptop keyboard until its clone has it: what typing goes through, p50 and p99;
//   - the same for a letter typed right after a brightness key that goes on to the desktop (it waits behind the
//     key's decision): the difference to a letter alone is the hop from the service to Lumora and back;
//   - the key service's CPU time while nobody types;
//   - for comparison, a letter through a bare forwarder on the same desk (poll, read, write with libevdev, nothing
//     else): what the emulated devices themselves cost, which a real kernel does not.
//
// Times are the desk's clock: from the moment the desk hands the key to the device's readers. Needs umockdev's
// preload: started without it, it starts itself again under umockdev-wrapper.

#include <QApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "LumoraCore/KeyProtocol.h"
#include "support/KeyServiceBus.h"
#include "tools/virtual-desk/VirtualDesk.h"
#include "bench/support/BenchSupport.h"

using namespace std::chrono_literals;

namespace {

const std::string laptop = "/dev/input/event0";
const std::string dell = "card0-DP-1";

constexpr const char* screens = R"({"screens": [
    {"name": "eDP-1", "x": 0, "y": 0, "width": 1920, "height": 1200, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "DP-1", "x": 1920, "y": 0, "width": 2560, "height": 1440, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "HDMI-A-1", "x": 4480, "y": 0, "width": 1920, "height": 1080, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1}
]})";

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const QDeadlineTimer deadline(timeout);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QEventLoop idle;
        QTimer::singleShot(1ms, Qt::PreciseTimer, &idle, &QEventLoop::quit);
        idle.exec();
    }
    return true;
}


struct Row {
    std::string measure;
    std::string value;
};
std::vector<Row> rows;

void row(std::string measure, const char* format, double a, double b = 0.0, double c = 0.0)
{
    char text[160];
    std::snprintf(text, sizeof text, format, a, b, c);
    rows.push_back({std::move(measure), text});
}

// The desk's time of the first Set VCP brightness message to the DELL that started at or after `sinceUs`.
std::optional<std::int64_t> firstSetAfter(const VirtualDesk::Desk& desk, std::int64_t sinceUs)
{
    for (const auto& t : desk.transactions()) {
        if (t.connector == dell && t.request == "set" && t.code == 0x10 && t.startUs >= sinceUs)
            return t.startUs;
    }
    return std::nullopt;
}

// The desk's time at which the laptop keyboard's clone got the event (type, code, value) after `sinceUs`.
std::optional<std::int64_t> passedOnAt(const VirtualDesk::Desk& desk, int code, int value, std::int64_t sinceUs)
{
    for (const auto& e : desk.forwarded()) {
        if (e.us >= sinceUs && e.type == EV_KEY && e.code == code && e.value == value)
            return e.us;
    }
    return std::nullopt;
}

// 500 letters pressed and released on the laptop keyboard: from the press to its arrival on a clone, in us.
std::vector<double> typeLetters(VirtualDesk::Desk& desk)
{
    std::vector<double> latencies;
    for (int i = 0; i < 500; ++i) {
        const std::int64_t pressed = desk.nowUs();
        desk.pressKey(laptop, KEY_J, 1);
        std::optional<std::int64_t> at;
        desk.waitFor([&] { return (at = passedOnAt(desk, KEY_J, 1, pressed)).has_value(); }, 5s);
        if (at)
            latencies.push_back(double(*at - pressed));
        desk.pressKey(laptop, KEY_J, 0);
        desk.waitFor([&] { return passedOnAt(desk, KEY_J, 0, pressed).has_value(); }, 5s);
    }
    return latencies;
}

// The least a client of the key service can do: attach, and answer every press "pass it on" the moment it comes,
// on a thread of its own. What a letter typed behind a brightness key waits for then is the hop itself.
class BareClient {
public:
    BareClient()
    {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
            return;
        QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.lumora.Keys"), QStringLiteral("/org/lumora/Keys"),
                                                           QStringLiteral("org.lumora.Keys1"), QStringLiteral("Attach"));
        call << QVariant::fromValue(QDBusUnixFileDescriptor(pair[1])) << false;
        ::close(pair[1]);
        if (QDBusConnection::systemBus().call(call, QDBus::Block, 30'000).type() != QDBusMessage::ReplyMessage) {
            ::close(pair[0]);
            return;
        }
        socket_ = pair[0];
        answering_ = std::thread([this] {
            std::uint8_t message[Lumora::KeyProtocol::messageSize];
            while (::recv(socket_, message, sizeof message, 0) == ssize_t(sizeof message)) {
                const auto press = Lumora::KeyProtocol::decodePress(message);
                if (!press)
                    break;
                const auto pass = Lumora::KeyProtocol::encode(Lumora::KeyProtocol::Decision{press->id, false});
                ::send(socket_, pass.data(), pass.size(), MSG_NOSIGNAL);
            }
        });
    }
    ~BareClient()
    {
        if (socket_ >= 0)
            ::shutdown(socket_, SHUT_RDWR);  // the answering thread's recv returns
        if (answering_.joinable())
            answering_.join();
        if (socket_ >= 0)
            ::close(socket_);
    }
    bool attached() const { return socket_ >= 0; }

private:
    int socket_ = -1;
    std::thread answering_;
};

// The least a forwarder can do: grab the keyboard, clone it, and pass every frame on in one write as it is read.
class BareForwarder {
public:
    BareForwarder()
    {
        fd_ = ::open(laptop.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd_ < 0 || libevdev_new_from_fd(fd_, &evdev_) < 0 ||
            libevdev_uinput_create_from_device(evdev_, LIBEVDEV_UINPUT_OPEN_MANAGED, &clone_) < 0 ||
            libevdev_grab(evdev_, LIBEVDEV_GRAB) < 0) {
            std::fprintf(stderr, "bench_hotkeys: the bare forwarder could not take the keyboard\n");
            std::exit(1);
        }
        stop_ = ::eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread([this] { run(); });
    }
    ~BareForwarder()
    {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(stop_, &one, sizeof one);
        thread_.join();
        libevdev_grab(evdev_, LIBEVDEV_UNGRAB);
        libevdev_uinput_destroy(clone_);
        libevdev_free(evdev_);
        ::close(fd_);
        ::close(stop_);
    }

private:
    void run()
    {
        for (;;) {
            pollfd fds[] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
            ::poll(fds, 2, -1);
            if (fds[1].revents != 0)
                return;
            input_event e{};
            while (libevdev_next_event(evdev_, LIBEVDEV_READ_FLAG_NORMAL, &e) == LIBEVDEV_READ_STATUS_SUCCESS) {
                frame_.push_back(e);
                if (e.type == EV_SYN && e.code == SYN_REPORT) {
                    [[maybe_unused]] const ssize_t n =
                        ::write(libevdev_uinput_get_fd(clone_), frame_.data(), frame_.size() * sizeof(input_event));
                    frame_.clear();
                }
            }
        }
    }
    int fd_ = -1;
    int stop_ = -1;
    libevdev* evdev_ = nullptr;
    libevdev_uinput* clone_ = nullptr;
    std::vector<input_event> frame_;
    std::thread thread_;
};


}  // namespace

int main(int argc, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    QTemporaryDir home;
    QFile config(home.filePath(QStringLiteral("screens.json")));
    config.open(QIODevice::WriteOnly);
    config.write(screens);
    config.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + QFile::encodeName(config.fileName()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    ::setenv("LUMORA_SOURCE_DIR", LUMORA_SOURCE_DIR, 0);
    ::setenv("LUMORA_BUILD_DIR", LUMORA_BUILD_DIR, 0);
    LumoraTest::KeyServiceBus bus(60);
    QApplication app(argc, argv);
    QSettings(QStringLiteral("Lumora"), QStringLiteral("Lumora")).setValue(QStringLiteral("useF1F2ForExternalBrightness"), true);

    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    bus.useDesk();
    std::vector<double> bare;
    {
        BareForwarder forwarder;
        desk.waitFor([&] { return desk.grabbed(laptop); }, 5s);
        bare = typeLetters(desk);
    }
    desk.waitFor([&] { return !desk.grabbed(laptop) && desk.clones().empty(); }, 5s);
    const std::size_t bareEvents = desk.forwarded().size();

    Lumora::DisplayController controller;
    bool published = false;
    QObject::connect(&controller, &Lumora::DisplayController::displaysChanged, [&] { published = true; });
    controller.refresh();
    if (!pumpUntil([&] { return published; }, 10s)) {
        std::fprintf(stderr, "bench_hotkeys: the displays were never listed\n");
        return 1;
    }
    Lumora::HotkeyService service(controller);
    if (!pumpUntil([&] { return desk.grabbed(laptop) && service.isTrusted(); }, 10s)) {
        std::fprintf(stderr, "bench_hotkeys: the laptop keyboard was never taken\n");
        return 1;
    }

    // 0. What the key service costs while nobody types: its CPU time over four idle seconds.
    const QString keys = QStringLiteral("org.lumora.Keys");
    const pid_t servicePid = pid_t(QDBusConnection::systemBus().interface()->servicePid(keys).value());
    const auto captureCpuMs = [servicePid] {
        std::ifstream stat("/proc/" + std::to_string(servicePid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        if (text.empty())
            return -1.0;
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string field;
        unsigned long user = 0, system = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14)
                user = std::stoul(field);
            if (i == 15)
                system = std::stoul(field);
        }
        return double(user + system) * 1000.0 / double(sysconf(_SC_CLK_TCK));
    };
    pumpUntil([] { return false; }, 1s);  // the clones' own arrival has been looked at
    const double idleBefore = captureCpuMs();
    pumpUntil([] { return false; }, 4s);
    row("the key service's CPU time while nobody types, ms per second", "%.1f", (captureCpuMs() - idleBefore) / 4.0);

    // 1. A brightness key until its first byte is on the wire, alternating up and down so that every press writes.
    QCursor::setPos(3000, 700);
    std::vector<double> toWire;
    for (int i = 0; i < 40; ++i) {
        const int key = i % 2 == 0 ? KEY_BRIGHTNESSUP : KEY_BRIGHTNESSDOWN;
        pumpUntil([] { return false; }, 120ms);  // the previous write is done and the monitor no longer busy
        const std::int64_t pressed = desk.nowUs();
        desk.pressKey(laptop, key, 1);
        desk.pressKey(laptop, key, 0);
        std::optional<std::int64_t> wire;
        pumpUntil([&] { return (wire = firstSetAfter(desk, pressed)).has_value(); }, 5s);
        if (wire)
            toWire.push_back(double(*wire - pressed) / 1000.0);
    }
    row("brightness key to first byte on the wire, ms (p50 / p99 / max, 40 presses)", "%.2f / %.2f / %.2f",
        BenchSupport::percentile(toWire, 50), BenchSupport::percentile(toWire, 99), BenchSupport::percentile(toWire, 100));

    // 2. Letters: press to clone, through Lumora and through the bare forwarder.
    const std::vector<double> letters = typeLetters(desk);
    row("a letter from the keyboard to its clone, us (p50 / p99 / max, 500 presses)", "%.0f / %.0f / %.0f",
        BenchSupport::percentile(letters, 50), BenchSupport::percentile(letters, 99), BenchSupport::percentile(letters, 100));
    row("  the same through a bare forwarder (the emulation's own cost), us", "%.0f / %.0f / %.0f",
        BenchSupport::percentile(bare, 50), BenchSupport::percentile(bare, 99), BenchSupport::percentile(bare, 100));
    (void)bareEvents;

    // 3. A letter right behind a brightness key that goes on to the desktop (cursor on the built-in panel).
    QCursor::setPos(900, 600);
    std::vector<double> behind;
    for (int i = 0; i < 100; ++i) {
        const std::int64_t pressed = desk.nowUs();
        desk.pressKey(laptop, KEY_BRIGHTNESSDOWN, 1);
        desk.pressKey(laptop, KEY_J, 1);
        std::optional<std::int64_t> at;
        pumpUntil([&] { return (at = passedOnAt(desk, KEY_J, 1, pressed)).has_value(); }, 5s);
        if (at)
            behind.push_back(double(*at - pressed));
        desk.pressKey(laptop, KEY_J, 0);
        desk.pressKey(laptop, KEY_BRIGHTNESSDOWN, 0);
        pumpUntil([&] { return passedOnAt(desk, KEY_BRIGHTNESSDOWN, 0, pressed).has_value(); }, 5s);
    }
    row("a letter typed right behind a passed brightness key, us (p50 / p99 / max, 100)", "%.0f / %.0f / %.0f",
        BenchSupport::percentile(behind, 50), BenchSupport::percentile(behind, 99), BenchSupport::percentile(behind, 100));
    row("  the same less a letter alone (the hop to Lumora, its decision, and back), us (p50)", "%.0f",
        BenchSupport::percentile(behind, 50) - BenchSupport::percentile(letters, 50));

    // 4. The hop alone: the same letters with a bare client that answers at once in place of Lumora.
    std::vector<double> hop;
    {
        service.setEnabled(false);  // Lumora gives the keys back; the service stays up (idle for a minute)
        BareClient client;
        if (client.attached()) {
            for (int i = 0; i < 200; ++i) {
                const std::int64_t pressed = desk.nowUs();
                desk.pressKey(laptop, KEY_BRIGHTNESSDOWN, 1);
                desk.pressKey(laptop, KEY_J, 1);
                std::optional<std::int64_t> at;
                desk.waitFor([&] { return (at = passedOnAt(desk, KEY_J, 1, pressed)).has_value(); }, 5s);
                if (at)
                    hop.push_back(double(*at - pressed));
                desk.pressKey(laptop, KEY_J, 0);
                desk.pressKey(laptop, KEY_BRIGHTNESSDOWN, 0);
                desk.waitFor([&] { return passedOnAt(desk, KEY_BRIGHTNESSDOWN, 0, pressed).has_value(); }, 5s);
            }
        }
    }
    row("a letter behind a brightness key a bare client passes at once, us (p50 / p99 / max, 200)", "%.0f / %.0f / %.0f",
        BenchSupport::percentile(hop, 50), BenchSupport::percentile(hop, 99), BenchSupport::percentile(hop, 100));
    row("  less a letter alone: the hop to the client and back, us (p50)", "%.0f",
        BenchSupport::percentile(hop, 50) - BenchSupport::percentile(letters, 50));

    std::size_t width = 0, valueWidth = 0;
    for (const Row& r : rows) {
        width = std::max(width, r.measure.size());
        valueWidth = std::max(valueWidth, r.value.size());
    }
    std::printf("Brightness keys on the virtual desk (laptop keyboard, DELL on DP-1: reply 30 ms, busy 50 ms)\n\n");
    std::printf("| %-*s | %-*s |\n", int(width), "measure", int(valueWidth), "value");
    std::printf("|%s|%s|\n", std::string(width + 2, '-').c_str(), std::string(valueWidth + 2, '-').c_str());
    for (const Row& r : rows)
        std::printf("| %-*s | %-*s |\n", int(width), r.measure.c_str(), int(valueWidth), r.value.c_str());
    return 0;
}
