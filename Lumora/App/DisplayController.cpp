// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/DisplayController.h"

#include <QMetaObject>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <utility>

#include "Lumora/DDC/DisplayEnumerator.h"

namespace Lumora {

namespace {

constexpr auto refreshAfterToggle = std::chrono::milliseconds(2000);
constexpr double defaultRestoreBrightness = 1.0;

}  // namespace

// One refresh on its way: what enumeration found, and each display's reading as it comes in from that display's
// queue. Each display's slots are written by its one read only; `pending` counts the reads still out, and the read
// that takes it to zero hands the batch to the main thread.
struct DisplayController::RefreshBatch {
    std::vector<DisplayInfo> infos;
    std::vector<std::optional<double>> readings;
    // Displays held in standby when the reads were handed out: their power mode is read instead, and their
    // brightness only when they say they are on.
    std::vector<char> heldInStandby;
    std::vector<std::optional<bool>> power;
    std::atomic<std::size_t> pending{0};
};

DisplayController::DisplayController(QObject* parent)
    : DisplayController(Enumerate(&DisplayEnumerator::allDisplays), parent)
{
}

DisplayController::DisplayController(Enumerate enumerate, QObject* parent)
    : QObject(parent),
      enumerate_(std::move(enumerate)),
      enumerationQueue_(std::make_unique<SerialQueue>(std::string(applicationIdentifier) + ".enumerate"))
{
}

DisplayController::~DisplayController()
{
    // Let the queues finish what they hold and join them while every member still exists. They feed only the
    // main thread, which runs nothing more for this object: what they post back dies with it, unrun.
    enumerationQueue_.reset();
    queues_.clear();
}

const std::vector<DisplaySnapshot>& DisplayController::displays() const
{
    return displays_;
}

template <typename Change>
void DisplayController::changeDisplays(Change&& change)
{
    emit objectWillChange();
    std::forward<Change>(change)();
    emit displaysChanged();
}

// ---- Main queue ----------------------------------------------------------------------------------------------

void DisplayController::onMain(std::function<void()> work)
{
    {
        std::lock_guard<std::mutex> hold(mainMailboxMutex_);
        mainMailbox_.push_back(std::move(work));
    }
    QMetaObject::invokeMethod(this, "runMain", Qt::QueuedConnection);
}

// Main thread: runs what was handed over, oldest first. One run may find work of later hand-overs, and their own
// runs then find nothing left.
void DisplayController::runMain()
{
    for (;;) {
        std::function<void()> work;
        {
            std::lock_guard<std::mutex> hold(mainMailboxMutex_);
            if (mainMailbox_.empty()) {
                return;
            }
            work = std::move(mainMailbox_.front());
            mainMailbox_.pop_front();
        }
        work();
    }
}

// ---- Refresh -------------------------------------------------------------------------------------------------
//
// A refresh enumerates on the enumeration queue, then reads each display on that display's own queue, behind any
// write or power command already queued for it: a read never overlaps other traffic to the same monitor, and
// different monitors are read in parallel. Refreshes run one after another, as if enumeration and reads shared
// the enumeration queue: the next one enumerates only once the previous one's reads are all in, so refreshes
// publish in call order, each enumerates afresh, and no pile of enumerations (each opening every monitor's
// device) builds up behind slow reads.

void DisplayController::refresh()
{
    enumerationQueue_->async([this] {
        if (refreshRunning_) {
            ++refreshesWaiting_;
            return;
        }
        startRefresh();
    });
}

// Enumeration queue.
void DisplayController::startRefresh()
{
    refreshRunning_ = true;
    auto batch = std::make_shared<RefreshBatch>();
    try {
        batch->infos = enumerate_ ? enumerate_() : std::vector<DisplayInfo>{};
    } catch (...) {
        batch->infos.clear();
    }
    std::erase_if(batch->infos, [](const DisplayInfo& info) { return !info.backend; });
    batch->readings.resize(batch->infos.size());
    batch->heldInStandby.resize(batch->infos.size());
    batch->power.resize(batch->infos.size());
    onMain([this, batch] { scheduleReads(batch); });
}

// Enumeration queue: the running refresh has published; start the next one called meanwhile, if any.
void DisplayController::refreshEnded()
{
    refreshRunning_ = false;
    if (refreshesWaiting_ > 0) {
        --refreshesWaiting_;
        startRefresh();
    }
}

// Main thread: the display queues are the main thread's, so the reads are handed out from here.
void DisplayController::scheduleReads(const std::shared_ptr<RefreshBatch>& batch)
{
    if (batch->infos.empty()) {
        readFinished(batch);
        return;
    }
    batch->pending.store(batch->infos.size(), std::memory_order_relaxed);
    for (std::size_t i = 0; i < batch->infos.size(); ++i) {
        batch->heldInStandby[i] = poweredOff_.contains(batch->infos[i].id);
        queue(batch->infos[i].id).async([this, batch, i] {
            DisplayBackend& backend = *batch->infos[i].backend;
            std::optional<double> reading;
            try {
                // A monitor held in standby is asked whether it is still asleep (many answer nothing then); only
                // one that was woken by its own button is read.
                if (batch->heldInStandby[i]) {
                    batch->power[i] = backend.readPower();
                }
                if (!batch->heldInStandby[i] || batch->power[i] == true) {
                    reading = backend.readBrightness();
                }
            } catch (...) {
                reading.reset();
            }
            batch->readings[i] = reading;
            if (batch->pending.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                onMain([this, batch] { readFinished(batch); });
            }
        });
    }
}

// Main thread.
void DisplayController::readFinished(const std::shared_ptr<RefreshBatch>& batch)
{
    publish(*batch);
    enumerationQueue_->async([this] { refreshEnded(); });
}

// Main thread.
void DisplayController::publish(const RefreshBatch& batch)
{
    std::unordered_map<std::uint32_t, DisplayBackendRef> newBackends;
    std::unordered_set<std::uint32_t> seen;
    std::vector<DisplaySnapshot> list;
    list.reserve(batch.infos.size() + displays_.size());

    for (std::size_t i = 0; i < batch.infos.size(); ++i) {
        const DisplayInfo& info = batch.infos[i];
        seen.insert(info.id);
        newBackends[info.id] = info.backend;
        const DisplaySnapshot* shown = nullptr;
        for (const DisplaySnapshot& snapshot : displays_) {
            if (snapshot.id == info.id) {
                shown = &snapshot;
                break;
            }
        }
        DisplaySnapshot snapshot{info.id, info.name, batch.readings[i].value_or(1.0), true,
                                 info.backend->canPowerOff()};
        // A monitor held in standby when this refresh read it was asked for its power mode only.
        const bool saysOn = batch.heldInStandby[i] && batch.power[i] == true;
        const bool brightnessRead = !batch.heldInStandby[i] || saysOn;
        if (poweredOff_.contains(info.id) && saysOn) {
            poweredOff_.erase(info.id);  // someone woke it with its own button
        } else if (poweredOff_.contains(info.id)) {
            // A monitor in standby keeps its connector on Linux: still held, it stays as it was, shown in standby
            // at the brightness it was shown at.
            snapshot.isOn = false;
            snapshot.brightness = shown ? shown->brightness : snapshot.brightness;
        } else if (!brightnessRead && shown) {
            // Woken by the user after its power mode was read: the request is shown.
            snapshot.brightness = shown->brightness;
        }
        // A backend that has not read its monitor scales by 100: one that could not read it here (asleep, or not
        // answering) gives way to the one in use, which knows the maximum the monitor reported when last read.
        if (!batch.readings[i]) {
            if (const auto kept = backends_.find(info.id); kept != backends_.end()) {
                newBackends[info.id] = kept->second;
            }
        }
        list.push_back(snapshot);
    }

    // A monitor that left the display list while in standby stays listed, with its backend, so that the user can
    // still wake it from its row.
    for (const DisplaySnapshot& shown : displays_) {
        if (seen.contains(shown.id) || !poweredOff_.contains(shown.id)) {
            continue;
        }
        list.push_back(shown);
        if (const auto kept = backends_.find(shown.id); kept != backends_.end()) {
            newBackends[shown.id] = kept->second;
        }
    }

    backends_ = std::move(newBackends);
    changeDisplays([&] { displays_ = std::move(list); });
}

// ---- Writes, stepping, power ---------------------------------------------------------------------------------

void DisplayController::setBrightness(std::uint32_t id, double fraction, PowerCommands commands)
{
    if (std::isnan(fraction)) {
        return;  // no brightness to show or write; a NaN target would also never compare equal in the write loop
    }
    double f = fraction;
    if (f <= 0.0) {
        f = 0.0;
    }
    if (f > 1.0) {
        f = 1.0;
    }

    std::size_t i = 0;
    while (i < displays_.size() && displays_[i].id != id) {
        ++i;
    }
    if (i == displays_.size()) {
        return;
    }
    const auto found = backends_.find(id);
    if (found == backends_.end()) {
        return;
    }
    const DisplayBackendRef backend = found->second;

    changeDisplays([&] { displays_[i].brightness = f; });

    const bool canPowerOff = backend->canPowerOff();
    if (canPowerOff && f <= offThreshold) {
        if (!displays_[i].isOn) {
            return;
        }
        changeDisplays([&] { displays_[i].isOn = false; });
        poweredOff_.insert(id);
        setPower(id, backend, false, commands);
        return;
    }
    if (canPowerOff && !displays_[i].isOn) {
        changeDisplays([&] { displays_[i].isOn = true; });
        poweredOff_.erase(id);
        setPower(id, backend, true, commands);
    }
    writeBrightness(id, backend, f);
}

void DisplayController::step(std::uint32_t id, double delta, PowerCommands commands)
{
    for (const DisplaySnapshot& shown : displays_) {
        if (shown.id == id) {
            setBrightness(id, shown.brightness + delta, commands);
            return;
        }
    }
}

void DisplayController::togglePower(std::uint32_t id, PowerCommands commands)
{
    std::size_t i = 0;
    while (i < displays_.size() && displays_[i].id != id) {
        ++i;
    }
    if (i == displays_.size() || !displays_[i].canPowerOff) {
        return;
    }
    if (displays_[i].isOn) {
        const double shown = displays_[i].brightness;
        restoreBrightness_[id] = shown > offThreshold ? shown : defaultRestoreBrightness;
        setBrightness(id, 0.0, commands);
    } else {
        const auto kept = restoreBrightness_.find(id);
        setBrightness(id, kept != restoreBrightness_.end() ? kept->second : defaultRestoreBrightness, commands);
    }
    // The monitor settles into its new power state in its own time; read it back once it has.
    if (commands == PowerCommands::inOrder) {
        QTimer::singleShot(refreshAfterToggle, Qt::PreciseTimer, this, [this] { refresh(); });
        return;
    }
    // A run of folded toggles is read back once, after its last: a refresh per toggle would read every monitor
    // a thousand times over.
    if (foldedToggleRefresh_ == nullptr) {
        foldedToggleRefresh_ = new QTimer(this);
        foldedToggleRefresh_->setSingleShot(true);
        foldedToggleRefresh_->setTimerType(Qt::PreciseTimer);
        foldedToggleRefresh_->setInterval(refreshAfterToggle);
        connect(foldedToggleRefresh_, &QTimer::timeout, this, [this] { refresh(); });
    }
    foldedToggleRefresh_->start();
}

// Main thread: records the newest target and starts the display's write loop unless one is queued or running,
// in which case that loop writes this value, or a newer one.
void DisplayController::writeBrightness(std::uint32_t id, const DisplayBackendRef& backend, double fraction)
{
    {
        std::lock_guard<std::mutex> hold(lock_);
        targetFraction_[id] = fraction;
        if (writing_.contains(id)) {
            return;
        }
        writing_.insert(id);
    }
    queue(id).async([this, id, backend] { drainBrightness(id, backend); });
}

// The display's queue: writes the newest target until no newer one is pending. The check for a newer target and
// leaving `writing_` happen under one holding of the lock, so a request either sees the loop still running (and
// is written by it) or starts a new one. The loop keeps the backend it started with.
void DisplayController::drainBrightness(std::uint32_t id, const DisplayBackendRef& backend)
{
    for (;;) {
        double target = 0.0;
        {
            std::lock_guard<std::mutex> hold(lock_);
            if (const auto it = targetFraction_.find(id); it != targetFraction_.end()) {
                target = it->second;
            }
        }
        try {
            backend->writeBrightness(target);
        } catch (...) {
            // A failed write goes unnoticed; the loop must still end or go on as usual.
        }
        std::lock_guard<std::mutex> hold(lock_);
        const auto it = targetFraction_.find(id);
        if (it != targetFraction_.end() && it->second == target) {
            writing_.erase(id);
            return;
        }
    }
}

// Main thread: an in-order command is queued as it is, behind the display's traffic. A folded one, or any command
// while a folded loop is queued or running, only records the newest state for that loop; the loop starts unless
// one is queued or running. A wake's write, queued right after, runs behind the loop that wakes the monitor.
void DisplayController::setPower(std::uint32_t id, const DisplayBackendRef& backend, bool on, PowerCommands commands)
{
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (commands == PowerCommands::newestOnly || powering_.contains(id)) {
            targetPower_[id] = on;
            if (powering_.contains(id)) {
                return;
            }
            powering_.insert(id);
            commands = PowerCommands::newestOnly;
        }
    }
    if (commands == PowerCommands::newestOnly) {
        queue(id).async([this, id, backend] { drainPower(id, backend); });
        return;
    }
    queue(id).async([backend, on] {
        try {
            backend->setPower(on);
        } catch (...) {
            // Unnoticed, like any failed power command.
        }
    });
}

// The display's queue: sends the newest power state until no other is asked for, as drainBrightness writes.
void DisplayController::drainPower(std::uint32_t id, const DisplayBackendRef& backend)
{
    for (;;) {
        bool target = true;
        {
            std::lock_guard<std::mutex> hold(lock_);
            target = targetPower_.at(id);
        }
        try {
            backend->setPower(target);
        } catch (...) {
            // Unnoticed, like any failed power command; the loop ends or goes on as usual.
        }
        std::lock_guard<std::mutex> hold(lock_);
        if (targetPower_.at(id) == target) {
            powering_.erase(id);
            return;
        }
    }
}

// Main thread: the display's queue, created on first use and kept for good.
SerialQueue& DisplayController::queue(std::uint32_t id)
{
    auto& slot = queues_[id];
    if (!slot) {
        slot = std::make_unique<SerialQueue>(std::string(applicationIdentifier) + ".ddc." + std::to_string(id));
    }
    return *slot;
}

}  // namespace Lumora
