// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One open descriptor of /dev/uinput, as the kernel's uinput driver keeps it: the device being described
// (capability bits, name and ids, physical path), its state (new, set up, created), and the clone once created.
// Pure state: the desk decodes the requests and creates the clone's node and sysfs. Not thread-safe itself.
#include "tools/virtual-desk/EmulatedKeyboard.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VirtualDesk {

class EmulatedUinput {
public:
    enum class State { New, SetUp, Created };

    State state() const { return st; }
    // UI_SET_EVBIT, UI_SET_KEYBIT, ... (type 0 for EVIOCGBIT-like event types, INPUT_PROP_CNT for properties):
    // 0, or EINVAL once created or for a code out of range.
    int setBit(int type, int code);
    int setProperty(int prop);
    int setPhys(std::string phys);                                    // UI_SET_PHYS
    int setup(std::string name, uint16_t bustype, uint16_t vendor, uint16_t product, uint16_t version); // UI_DEV_SETUP
    int legacySetup(const std::vector<uint8_t>& userDev);             // write() of struct uinput_user_dev
    // UI_DEV_CREATE: 0 with the device to register, or EINVAL when it was not set up (or is created already).
    int create(InputIdentity& identity, InputCapabilities& caps);
    // UI_DEV_DESTROY: the description is gone with the device; the descriptor starts afresh.
    void destroyed()
    {
        st = State::New;
        id = {};
        caps = {};
    }
    static constexpr unsigned kVersion = 5;                          // UINPUT_VERSION

private:
    State st = State::New;
    InputIdentity id;
    InputCapabilities caps;
};

} // namespace VirtualDesk
