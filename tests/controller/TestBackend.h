#pragma once
// A scriptable stand-in for the hardware behind the controller's rule tests.
//
// TestMonitor is one monitor: it keeps brightness and power, records every call made to it (kind, value, thread,
// which backend), notices calls that overlap, and can hold writes or reads at a gate until the test releases them.
// TestBackend is a DisplayBackend over one TestMonitor; every enumeration makes new backends for the same
// monitors, as the real enumerator does. TestDesk is the enumeration source: the list of displays the test has
// plugged in, turned into fresh DisplayInfo records on every call.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/DDC/DisplayBackend.h"
#include "Lumora/DDC/DisplayInfo.h"

namespace LumoraTest {

enum class Op { read, write, powerOn, powerOff };

struct Call {
    Op op;
    double value = 0.0;  // written value, or the value a read returned (-1 for a failed read)
    std::thread::id thread;
    int backendGeneration = 0;
};

class TestMonitor {
public:
    explicit TestMonitor(std::optional<double> brightness = 0.5) : brightness_(brightness) {}

    // Calls of the held kind that start from now on wait at the gate until release().
    void holdWrites()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        holdWrites_ = true;
    }
    void holdReads()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        holdReads_ = true;
    }
    void release()
    {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            holdWrites_ = holdReads_ = false;
        }
        changed_.notify_all();
    }
    // How long each call occupies the monitor (emulated transaction time).
    void setLatency(std::chrono::microseconds latency)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        latency_ = latency;
    }
    // Reads that come back with nothing (absent brightness), as from a monitor that does not answer.
    void setReadFails(bool fails)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        readFails_ = fails;
    }
    // Hardware calls that blow up instead of returning.
    void setThrows(bool throws)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        throws_ = throws;
    }

    // Blocks until `count` calls wait at the gate at the same time; false after `timeout`.
    bool waitBlocked(int count = 1, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> hold(mutex_);
        return changed_.wait_for(hold, timeout, [&] { return blocked_ >= count; });
    }
    // Blocks until the monitor has finished `count` calls; false after `timeout`.
    bool waitCalls(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> hold(mutex_);
        return changed_.wait_for(hold, timeout, [&] { return calls_.size() >= count; });
    }

    std::vector<Call> calls() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return calls_;
    }
    std::vector<double> writes() const { return valuesOf(Op::write); }
    std::size_t count(Op op) const { return valuesOf(op).size(); }
    std::vector<Op> ops() const
    {
        std::vector<Op> result;
        for (const Call& call : calls()) {
            result.push_back(call.op);
        }
        return result;
    }
    int blocked() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return blocked_;
    }
    bool overlapped() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return overlapped_;
    }
    std::optional<double> brightness() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return brightness_;
    }
    bool isOn() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return on_;
    }

    // The backend's entry points.
    std::optional<double> read(int generation)
    {
        Transaction t(*this, Op::read);
        std::lock_guard<std::mutex> hold(mutex_);
        const std::optional<double> reading = readFails_ ? std::nullopt : brightness_;
        record(Op::read, reading.value_or(-1.0), generation);
        if (throws_) {
            throw std::runtime_error("read failed");
        }
        return reading;
    }
    void write(double fraction, int generation)
    {
        Transaction t(*this, Op::write);
        std::lock_guard<std::mutex> hold(mutex_);
        record(Op::write, fraction, generation);
        if (throws_) {
            throw std::runtime_error("write failed");
        }
        brightness_ = fraction;
    }
    void power(bool on, int generation)
    {
        Transaction t(*this, on ? Op::powerOn : Op::powerOff);
        std::lock_guard<std::mutex> hold(mutex_);
        record(on ? Op::powerOn : Op::powerOff, on ? 1.0 : 0.0, generation);
        if (throws_) {
            throw std::runtime_error("power failed");
        }
        on_ = on;
    }

private:
    // Marks the monitor busy for one call: notes an overlap, waits at the gate, takes the emulated time.
    class Transaction {
    public:
        Transaction(TestMonitor& monitor, Op op) : monitor_(monitor)
        {
            std::chrono::microseconds latency{};
            {
                std::unique_lock<std::mutex> hold(monitor_.mutex_);
                if (++monitor_.inFlight_ > 1) {
                    monitor_.overlapped_ = true;
                }
                const auto held = [&] {
                    return op == Op::read ? monitor_.holdReads_ : (op == Op::write && monitor_.holdWrites_);
                };
                if (held()) {
                    ++monitor_.blocked_;
                    monitor_.changed_.notify_all();
                    monitor_.changed_.wait(hold, [&] { return !held(); });
                    --monitor_.blocked_;
                }
                latency = monitor_.latency_;
            }
            if (latency.count() > 0) {
                std::this_thread::sleep_for(latency);  // the emulated hardware's own time, not a synchronisation
            }
        }
        ~Transaction()
        {
            {
                std::lock_guard<std::mutex> hold(monitor_.mutex_);
                --monitor_.inFlight_;
            }
            monitor_.changed_.notify_all();
        }
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

    private:
        TestMonitor& monitor_;
    };

    void record(Op op, double value, int generation)
    {
        calls_.push_back(Call{op, value, std::this_thread::get_id(), generation});
    }
    std::vector<double> valuesOf(Op op) const
    {
        std::vector<double> result;
        for (const Call& call : calls()) {
            if (call.op == op) {
                result.push_back(call.value);
            }
        }
        return result;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<double> brightness_;
    bool on_ = true;
    bool holdWrites_ = false;
    bool holdReads_ = false;
    bool readFails_ = false;
    bool throws_ = false;
    std::chrono::microseconds latency_{0};
    int inFlight_ = 0;
    int blocked_ = 0;
    bool overlapped_ = false;
    std::vector<Call> calls_;
};

class TestBackend final : public Lumora::DisplayBackend {
public:
    TestBackend(std::shared_ptr<TestMonitor> monitor, bool canPowerOff, int generation)
        : monitor_(std::move(monitor)), canPowerOff_(canPowerOff), generation_(generation)
    {
    }
    bool canPowerOff() const override { return canPowerOff_; }
    std::optional<double> readBrightness() override { return monitor_->read(generation_); }
    void writeBrightness(double fraction) override { monitor_->write(fraction, generation_); }
    void setPower(bool on) override
    {
        if (canPowerOff_) {
            monitor_->power(on, generation_);
        }
    }

private:
    std::shared_ptr<TestMonitor> monitor_;
    bool canPowerOff_;
    int generation_;
};

class TestDesk {
public:
    struct Display {
        std::uint32_t id;
        std::string name;
        std::shared_ptr<TestMonitor> monitor;
        bool canPowerOff;
    };

    // What the next enumerations find, in order.
    void plug(std::vector<Display> displays)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        displays_ = std::move(displays);
    }
    int enumerations() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return enumerations_;
    }
    Lumora::DisplayController::Enumerate enumerator()
    {
        return [this] {
            std::lock_guard<std::mutex> hold(mutex_);
            ++enumerations_;
            std::vector<Lumora::DisplayInfo> infos;
            for (const Display& d : displays_) {
                infos.push_back(Lumora::DisplayInfo{
                    d.id, d.name, std::make_shared<TestBackend>(d.monitor, d.canPowerOff, enumerations_)});
            }
            return infos;
        };
    }

private:
    mutable std::mutex mutex_;
    std::vector<Display> displays_;
    int enumerations_ = 0;
};

}  // namespace LumoraTest
