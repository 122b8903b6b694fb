// SPDX-License-Identifier: GPL-3.0-or-later
// The session bus interface's figures: the tray application (this build's lumora, on Qt's offscreen platform) on
// the virtual desk's default desk, with a private session bus, printed as a table:
//
//   - `gdbus call ... Step` → the first byte of its write on the monitor's wire (the command started until the Set
//     VCP transfer reaches the monitor), and until gdbus has its reply and exits; the monitor idle before each;
//   - the same Step sent on a connection that is already open, to tell the bus and Lumora from gdbus's own start;
//   - a drag over the bus: 100 SetBrightness calls over 1 s, as bench_controller's drag makes them — writes on the
//     wire and PropertiesChanged received;
//   - a burst: 100 Step calls sent at once — writes on the wire and PropertiesChanged received.
//
// One clock for all of it: the desk's (transactions carry its timestamps). Needs umockdev's preload: started without
// it, it starts itself again under umockdev-wrapper.

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QEventLoop>
#include <QObject>
#include <QTimer>
#include <QVariantMap>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/BenchSupport.h"
#include "bench/support/EventPump.h"
#include "tools/virtual-desk/VirtualDesk.h"

extern char** environ;

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t dellID = 103;  // card0-DP-1 on the default desk
const std::string dell = "card0-DP-1";
const QString service = QStringLiteral("org.lumora.Lumora");
const QString path = QStringLiteral("/org/lumora/Lumora");
const QString interface = QStringLiteral("org.lumora.Lumora1");

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "bench_bus: %s\n", what.c_str());
    std::exit(1);
}

// ---- Small helpers -------------------------------------------------------------------------------------------

using BenchSupport::pumpUntil;

void pumpFor(std::chrono::milliseconds span)
{
    pumpUntil([] { return false; }, span);
}


struct Row {
    std::string measure;
    std::string value;
};
std::vector<Row> rows;

void row(std::string measure, const char* format, double a, double b = 0.0)
{
    char text[160];
    std::snprintf(text, sizeof text, format, a, b);
    rows.push_back({std::move(measure), text});
}

// DP-1's brightness Set VCP transfers since `sinceUs`, in order of completion.
std::vector<VirtualDesk::Transaction> sets(const VirtualDesk::Desk& desk, std::int64_t sinceUs)
{
    std::vector<VirtualDesk::Transaction> result;
    for (const auto& t : desk.transactions()) {
        if (t.connector == dell && t.request == "set" && t.code == 0x10 && t.startUs >= sinceUs) {
            result.push_back(t);
        }
    }
    return result;
}

// Writes are told apart by their values: a write sends its packet twice, and a NAKed packet goes again.
int writes(const std::vector<VirtualDesk::Transaction>& transfers)
{
    int count = 0;
    for (std::size_t i = 0; i < transfers.size(); ++i) {
        if (i == 0 || transfers[i].value != transfers[i - 1].value) {
            ++count;
        }
    }
    return count;
}

// ---- Processes -----------------------------------------------------------------------------------------------

// The environment of this process with `set` added (or replaced) and, when `bare`, without umockdev's preload.
std::vector<std::string> environment(const std::vector<std::string>& set, bool bare)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string key = entry.substr(0, entry.find('='));
        if (bare && (key == "LD_PRELOAD" || key == "UMOCKDEV_DIR")) {
            continue;
        }
        const bool replaced = std::any_of(set.begin(), set.end(), [&](const std::string& s) {
            return s.compare(0, key.size() + 1, key + "=") == 0;
        });
        if (!replaced) {
            env.push_back(entry);
        }
    }
    env.insert(env.end(), set.begin(), set.end());
    return env;
}

// Starts a program with its standard output (and, when `quiet`, its standard error) on /dev/null and, when
// `extraFd` is given, that descriptor as its 3.
pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& env, bool quiet,
            int extraFd = -1)
{
    std::vector<char*> argv;
    for (const auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : env) {
        envp.push_back(const_cast<char*>(e.c_str()));
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (extraFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, extraFd, 3);
    }
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        die("cannot start " + args[0] + ": " + std::strerror(failed));
    }
    return pid;
}

void stop(pid_t pid)
{
    if (pid <= 0) {
        return;
    }
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 100; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) {
            return;
        }
        ::usleep(50'000);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// A private session bus: its address.
std::string startBus(pid_t& pid)
{
    int fds[2];
    if (::pipe(fds) != 0) {
        die("pipe");
    }
    pid = spawn({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=3"}, environment({}, true),
                true, fds[1]);
    ::close(fds[1]);
    std::string address;
    pollfd waiting{fds[0], POLLIN, 0};
    char buffer[512];
    while (address.find('\n') == std::string::npos && ::poll(&waiting, 1, 10'000) > 0) {
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        address.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    if (address.find('\n') == std::string::npos) {
        die("the session bus did not start");
    }
    return address.substr(0, address.find('\n'));
}

// ---- Bus clients ---------------------------------------------------------------------------------------------

class SignalCounter : public QObject {
    Q_OBJECT
public:
    int count = 0;
public slots:
    void changed(const QString&, const QVariantMap& values, const QStringList&)
    {
        if (values.contains(QStringLiteral("Displays"))) {
            ++count;
        }
    }
};

QDBusMessage method(const char* name, const QVariantList& args)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, interface, QLatin1String(name));
    call.setArguments(args);
    return call;
}

int listedDisplays()
{
    QDBusMessage get = QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << interface << QStringLiteral("Displays");
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 2000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return 0;
    }
    const QDBusArgument list = reply.arguments()[0].value<QDBusVariant>().variant().value<QDBusArgument>();
    int count = 0;
    list.beginArray();
    while (!list.atEnd()) {
        list.beginStructure();
        uint id;
        QString name;
        double brightness;
        bool on, canPowerOff;
        list >> id >> name >> brightness >> on >> canPowerOff;
        list.endStructure();
        ++count;
    }
    list.endArray();
    return count;
}

// Sets DP-1 and waits until the monitor has it and its busy time has passed: the next request finds it idle.
void settle(VirtualDesk::Desk& desk, double fraction)
{
    QDBusConnection::sessionBus().call(method("SetBrightness", {dellID, fraction}), QDBus::Block, 5000);
    const int raw = static_cast<int>(std::lround(fraction * 100));
    desk.waitFor([&] { return desk.brightness(dell) == raw; }, 5s);
    std::this_thread::sleep_for(150ms);
}

// ---- 1, 2. One Step to the wire ------------------------------------------------------------------------------

void benchStep(VirtualDesk::Desk& desk, const std::string& busAddress)
{
    constexpr int samples = 60;
    const auto gdbusEnv = environment({"DBUS_SESSION_BUS_ADDRESS=" + busAddress}, true);
    std::vector<double> toWireMs, gdbusExitMs, openToWireMs;
    settle(desk, 0.5);
    for (int i = 0; i < samples; ++i) {
        const char* delta = (i % 2) ? "-0.05" : "0.05";
        const std::int64_t t0 = desk.nowUs();
        const pid_t gdbus = spawn({"gdbus", "call", "--session", "--dest", "org.lumora.Lumora", "--object-path",
                                   "/org/lumora/Lumora", "--method", "org.lumora.Lumora1.Step", "--",
                                   std::to_string(dellID), delta},
                                  gdbusEnv, false);
        const bool written = desk.waitFor([&] { return !sets(desk, t0).empty(); }, 5s);
        int status = 0;
        ::waitpid(gdbus, &status, 0);
        const std::int64_t exited = desk.nowUs();
        if (!written || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            die("a gdbus call did not reach the monitor");
        }
        toWireMs.push_back((sets(desk, t0).front().startUs - t0) / 1000.0);
        gdbusExitMs.push_back((exited - t0) / 1000.0);
        desk.waitFor([&] { return sets(desk, t0).size() >= 2; }, 5s);
        std::this_thread::sleep_for(150ms);  // the monitor's busy time has passed
    }
    row("gdbus call Step -> first byte on the wire: median (60 calls)", "%.1f ms", BenchSupport::percentile(toWireMs, 50));
    row("gdbus call Step -> first byte on the wire: p99", "%.1f ms", BenchSupport::percentile(toWireMs, 99));
    row("gdbus call Step -> gdbus has its reply and exits: median", "%.1f ms", BenchSupport::percentile(gdbusExitMs, 50));

    for (int i = 0; i < samples; ++i) {
        const double delta = (i % 2) ? -0.05 : 0.05;
        const std::int64_t t0 = desk.nowUs();
        QDBusPendingCall pending = QDBusConnection::sessionBus().asyncCall(method("Step", {dellID, delta}));
        if (!desk.waitFor([&] { return !sets(desk, t0).empty(); }, 5s)) {
            die("a Step call did not reach the monitor");
        }
        openToWireMs.push_back((sets(desk, t0).front().startUs - t0) / 1000.0);
        pending.waitForFinished();
        desk.waitFor([&] { return sets(desk, t0).size() >= 2; }, 5s);
        std::this_thread::sleep_for(150ms);
    }
    row("Step on an open connection -> first byte on the wire: median (60 calls)", "%.1f ms (10 ms of it the DDC/CI pause)",
        BenchSupport::percentile(openToWireMs, 50));
    row("Step on an open connection -> first byte on the wire: p99", "%.1f ms", BenchSupport::percentile(openToWireMs, 99));
}

// ---- 3, 4. Many calls ----------------------------------------------------------------------------------------

struct Many {
    int writes = 0;
    int propertiesChanged = 0;
    double lastCallToWireMs = 0;
};

Many many(VirtualDesk::Desk& desk, SignalCounter& counter, double start, int target,
          const std::function<void(int)>& callNumber)
{
    settle(desk, start);
    pumpFor(100ms);
    const int signalsBefore = counter.count;
    const std::int64_t t0 = desk.nowUs();
    std::int64_t lastCallUs = 0;
    for (int i = 0; i < 100; ++i) {
        lastCallUs = desk.nowUs();
        callNumber(i);
    }
    if (!desk.waitFor([&] { return desk.brightness(dell) == target; }, 10s)) {
        die("the calls did not reach their end on the monitor");
    }
    pumpFor(300ms);  // the last write's second packet, the last signals
    Many result;
    const auto written = sets(desk, t0);
    result.writes = writes(written);
    result.propertiesChanged = counter.count - signalsBefore;
    for (const auto& t : written) {
        if (t.value == target) {
            result.lastCallToWireMs = (t.startUs - lastCallUs) / 1000.0;
            break;
        }
    }
    return result;
}

void benchMany(VirtualDesk::Desk& desk)
{
    SignalCounter counter;
    if (!QDBusConnection::sessionBus().connect(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                               QStringLiteral("PropertiesChanged"), &counter,
                                               SLOT(changed(QString, QVariantMap, QStringList)))) {
        die("cannot listen for PropertiesChanged");
    }
    // As bench_controller drags: 0.02 up to 1.0, one request every 10 ms.
    const auto dragStart = Clock::now();
    const Many drag = many(desk, counter, 0.5, 100, [&](int i) {
        pumpUntil([&] { return Clock::now() >= dragStart + 150ms + i * 10ms; }, 1s);
        const double value = i == 99 ? 1.0 : 0.02 + 0.98 * i / 99.0;
        QDBusConnection::sessionBus().asyncCall(method("SetBrightness", {dellID, value}));
    });
    row("drag over the bus, 100 SetBrightness / 1 s: writes on the wire", "%.0f", drag.writes);
    row("drag over the bus: PropertiesChanged received", "%.0f", drag.propertiesChanged);
    row("drag over the bus: last call -> last value on the wire", "%.1f ms", drag.lastCallToWireMs);

    const Many burst = many(desk, counter, 0.2, 90, [&](int) {
        QDBusConnection::sessionBus().asyncCall(method("Step", {dellID, 0.007}));
    });
    row("burst of 100 Step calls (0.2 + 100 x 0.007): writes on the wire", "%.0f", burst.writes);
    row("burst: PropertiesChanged received", "%.0f", burst.propertiesChanged);
    row("burst: last call -> last value on the wire", "%.1f ms", burst.lastCallToWireMs);
}


}  // namespace

int main(int argc, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    const std::string lumora = argc > 1 ? argv[1] : LUMORA_BINARY;

    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    pid_t bus = -1;
    const std::string address = startBus(bus);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    const std::filesystem::path runtime =
        std::filesystem::temp_directory_path() / ("lumora-bench-bus-" + std::to_string(::getpid()));
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);

    // The tray application, on the desk (it inherits the preload), without a display server.
    const pid_t app = spawn({lumora},
                            environment({"QT_QPA_PLATFORM=offscreen", "XDG_RUNTIME_DIR=" + runtime.string(),
                                         "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"},
                                        false),
                            true);
    int failed = 0;
    {
        QCoreApplication qt(argc, argv);
        const bool up = pumpUntil([] { return listedDisplays() == 3; }, 30s);
        if (!up) {
            std::fprintf(stderr, "bench_bus: lumora did not list the desk's displays on the bus\n");
            failed = 1;
        } else {
            benchStep(desk, address);
            benchMany(desk);
        }
    }
    stop(app);
    stop(bus);
    std::filesystem::remove_all(runtime);
    if (failed != 0) {
        return failed;
    }
    if (!desk.violations().empty()) {
        die("the desk saw violations");
    }

    std::size_t width = 0, valueWidth = 0;
    for (const Row& r : rows) {
        width = std::max(width, r.measure.size());
        valueWidth = std::max(valueWidth, r.value.size());
    }
    std::printf("lumora over the session bus, on the virtual desk (default desk: DP-1 reply 30 ms, busy 50 ms)\n\n");
    std::printf("| %-*s | %-*s |\n", static_cast<int>(width), "measure", static_cast<int>(valueWidth), "value");
    std::printf("|%s|%s|\n", std::string(width + 2, '-').c_str(), std::string(valueWidth + 2, '-').c_str());
    for (const Row& r : rows) {
        std::printf("| %-*s | %-*s |\n", static_cast<int>(width), r.measure.c_str(), static_cast<int>(valueWidth),
                    r.value.c_str());
    }
    return 0;
}

#include "BusBench.moc"
