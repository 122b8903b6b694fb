// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The on-screen display after a change the user cannot otherwise watch: a brightness key, or a script's or a
// shortcut's SetBrightness, Step, SetDisplayInUse or StepDisplayInUse. It shows the display's name and its new
// level on that display: in the desktop's own on-screen display where Lumora may use it (DesktopOsd), else in
// Lumora's own (OsdWindow) on the screen that shows the display. The panel's sliders show no on-screen display:
// the slider under the user's hand already shows the level.
//
// Main thread only.

#include <QObject>

#include <cstdint>
#include <memory>

namespace Lumora {

class DisplayController;
class OsdWindow;

class OnScreenDisplay : public QObject {
    Q_OBJECT
public:
    explicit OnScreenDisplay(const DisplayController& controller, QObject* parent = nullptr);
    ~OnScreenDisplay() override;

    // Shows the display's brightness as the controller shows it now (0 in standby). Unknown displays: nothing.
    void show(std::uint32_t id);

    // Lumora's own window, once it has been needed; for tests and benchmarks.
    OsdWindow* window() const { return window_.get(); }

private:
    const DisplayController& controller_;
    std::unique_ptr<OsdWindow> window_;
};

}  // namespace Lumora
