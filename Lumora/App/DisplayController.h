// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The one model of the displays that the application shares: the published list of snapshots, the backends, one
// serial work queue per display, coalesced brightness writes, stepping, standby and wake.
//
// Standby and wake reach a monitor as commands on its queue. Those of the panel and the keys are sent one by one
// in request order: a person cannot ask faster than a monitor changes state. Those of the session bus, which any
// process may call as fast as it likes, are folded together as brightness writes are (PowerCommands::newestOnly):
// however many come while one is queued or running, the monitor gets at most one more, and ends in the state the
// last request asked for.
//
// Threads: the controller lives on the thread of the Qt event loop it was created on (the main thread). Every
// public operation runs there, except refresh(), which any thread may call. Hardware work never runs there:
// enumeration runs on the enumeration queue; each display's reads, writes and power commands run on that
// display's own serial queue, one transaction at a time per monitor, different monitors in parallel.
//
// Observers: objectWillChange() is emitted before, and displaysChanged() right after, every assignment to the
// list and every change of one of its elements, also when nothing differs.
//
// Lifetime: the controller is meant to live for the process. Destroying it (on its own thread) runs the work its
// queues still hold, joins them, and drops whatever they had posted back; no refresh() may be called from
// another thread while it is being destroyed.

#include <QObject>

class QTimer;

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Lumora/App/DisplaySnapshot.h"
#include "Lumora/App/SerialQueue.h"
#include "Lumora/DDC/DisplayInfo.h"

namespace Lumora {

class DisplayController : public QObject {
    Q_OBJECT

public:
    using Enumerate = std::function<std::vector<DisplayInfo>()>;

    // How the standby and wake commands of a request reach the monitor: each in request order, or only the newest
    // while one is queued or running. A request of either kind made while a folded command is queued or running
    // is folded into it, so the last request always decides the end state.
    enum class PowerCommands { inOrder, newestOnly };

    // Enumerates with DisplayEnumerator::allDisplays.
    explicit DisplayController(QObject* parent = nullptr);
    // Enumerates with `enumerate`, called on the enumeration queue only.
    explicit DisplayController(Enumerate enumerate, QObject* parent = nullptr);
    ~DisplayController() override;

    // The displays in panel order: enumerated ones first, then those held in standby that vanished meanwhile.
    // Empty until the first refresh has published.
    const std::vector<DisplaySnapshot>& displays() const;

    // Re-enumerates, reads every display (each on its own queue, behind the traffic already queued for it) and
    // republishes the list; returns at once. Refreshes run one after another and publish in the order they were
    // called; none is dropped. A display held in standby stays shown in standby at its shown brightness, whether
    // or not it is still enumerated, until it is woken here or says it is on (read of its power mode, for those
    // displays only). A display this refresh could not read keeps the backend in use, which knows its monitor's
    // maximum.
    void refresh();
    // Shows the clamped fraction at once, then writes it, or puts a monitor into standby at 0.01 and below and
    // wakes it above. Unknown displays and NaN are ignored.
    void setBrightness(std::uint32_t id, double fraction, PowerCommands commands = PowerCommands::inOrder);
    // setBrightness relative to the shown brightness.
    void step(std::uint32_t id, double delta, PowerCommands commands = PowerCommands::inOrder);
    // Standby, keeping the brightness to restore, or wake at the kept brightness; refreshes 2 s later (newestOnly:
    // 2 s after the last of a run of toggles, once).
    void togglePower(std::uint32_t id, PowerCommands commands = PowerCommands::inOrder);

    static constexpr double offThreshold = 0.01;
    static constexpr const char* applicationIdentifier = "org.lumora.Lumora";

signals:
    void objectWillChange();
    void displaysChanged();

private:
    struct RefreshBatch;

    // The main queue: hands work from any thread to this object's thread, in hand-over order.
    void onMain(std::function<void()> work);
    Q_INVOKABLE void runMain();

    void writeBrightness(std::uint32_t id, const DisplayBackendRef& backend, double fraction);
    void drainBrightness(std::uint32_t id, const DisplayBackendRef& backend);
    void setPower(std::uint32_t id, const DisplayBackendRef& backend, bool on, PowerCommands commands);
    void drainPower(std::uint32_t id, const DisplayBackendRef& backend);
    SerialQueue& queue(std::uint32_t id);

    void startRefresh();
    void refreshEnded();
    void scheduleReads(const std::shared_ptr<RefreshBatch>& batch);
    void readFinished(const std::shared_ptr<RefreshBatch>& batch);
    void publish(const RefreshBatch& batch);
    template <typename Change>
    void changeDisplays(Change&& change);

    const Enumerate enumerate_;

    // Main thread only.
    std::vector<DisplaySnapshot> displays_;
    std::unordered_map<std::uint32_t, DisplayBackendRef> backends_;
    std::unordered_map<std::uint32_t, std::unique_ptr<SerialQueue>> queues_;
    std::unordered_set<std::uint32_t> poweredOff_;
    std::unordered_map<std::uint32_t, double> restoreBrightness_;
    QTimer* foldedToggleRefresh_ = nullptr;  // the one refresh after a run of folded toggles

    // Constant from construction to destruction.
    std::unique_ptr<SerialQueue> enumerationQueue_;

    // Enumeration queue only.
    bool refreshRunning_ = false;  // enumerated, and not yet published
    int refreshesWaiting_ = 0;     // called while one was running; each runs in turn

    // The main queue's mailbox. The Qt event posted with each hand-over only says "look in the mailbox"; the work
    // itself travels here, under the mailbox's own mutex, which keeps it in order and makes the hand-over visible
    // to race detectors (the event loop's internal locking is not). It guards no state of the model.
    std::mutex mainMailboxMutex_;
    std::deque<std::function<void()>> mainMailbox_;

    // Guards targetFraction_, writing_, targetPower_ and powering_ only; never held during a hardware call.
    std::mutex lock_;
    std::unordered_map<std::uint32_t, double> targetFraction_;
    std::unordered_set<std::uint32_t> writing_;
    std::unordered_map<std::uint32_t, bool> targetPower_;  // on: true
    std::unordered_set<std::uint32_t> powering_;           // a folded power loop is queued or running
};

}  // namespace Lumora
