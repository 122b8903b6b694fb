#pragma once
// Displays for the widget tests: backends that record what the controller sends them, handed to a real
// DisplayController through its enumeration hook. The controller's behaviour is the product's; only the
// hardware behind it is played here.

#include <QTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/DDC/DisplayBackend.h"

namespace LumoraTest {

class RecordingBackend final : public Lumora::DisplayBackend {
public:
    RecordingBackend(bool ddc, double reading) : ddc_(ddc), reading_(reading) {}

    bool canPowerOff() const override { return ddc_; }
    std::optional<double> readBrightness() override
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return reading_;
    }
    void writeBrightness(double fraction) override
    {
        std::lock_guard<std::mutex> hold(mutex_);
        writes_.push_back(fraction);
    }
    void setPower(bool on) override
    {
        std::lock_guard<std::mutex> hold(mutex_);
        powers_.push_back(on);
    }

    void setReading(double value)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        reading_ = value;
    }
    std::vector<double> writes() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return writes_;
    }
    std::vector<bool> powers() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return powers_;
    }

private:
    const bool ddc_;
    mutable std::mutex mutex_;
    double reading_;
    std::vector<double> writes_;
    std::vector<bool> powers_;
};

struct TestDisplay {
    std::uint32_t id;
    std::string name;
    std::shared_ptr<RecordingBackend> backend;
};

// A desk of displays behind a real controller. Counts the enumerations the controller makes.
class Desk {
public:
    explicit Desk(std::vector<TestDisplay> displays)
        : displays_(std::move(displays)),
          controller_([this] {
              ++enumerations_;
              std::lock_guard<std::mutex> hold(mutex_);
              std::vector<Lumora::DisplayInfo> infos;
              for (const auto& display : displays_) {
                  infos.push_back({display.id, display.name, display.backend});
              }
              return infos;
          })
    {
    }

    Lumora::DisplayController& controller() { return controller_; }
    int enumerations() const { return enumerations_.load(); }

    void setDisplays(std::vector<TestDisplay> displays)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        displays_ = std::move(displays);
    }

    // Refreshes and waits (bounded) until the controller has published the refresh.
    bool refreshAndWait()
    {
        int published = 0;
        auto connection = QObject::connect(&controller_, &Lumora::DisplayController::displaysChanged,
                                           [&published] { ++published; });
        controller_.refresh();
        const bool done = QTest::qWaitFor([&published] { return published > 0; }, 5000);
        QObject::disconnect(connection);
        return done;
    }

private:
    std::mutex mutex_;
    std::vector<TestDisplay> displays_;
    std::atomic<int> enumerations_{0};
    Lumora::DisplayController controller_;
};

inline std::shared_ptr<RecordingBackend> ddcMonitor(double reading = 0.5)
{
    return std::make_shared<RecordingBackend>(true, reading);
}

inline std::shared_ptr<RecordingBackend> builtInPanel(double reading = 0.8)
{
    return std::make_shared<RecordingBackend>(false, reading);
}

}  // namespace LumoraTest
