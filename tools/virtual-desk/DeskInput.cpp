// SPDX-License-Identifier: GPL-3.0-or-later
// The Desk's keyboard and uinput operations: keys pressed as the hardware would, keyboards plugged in and out,
// and what tests check (grabs, clones, what was forwarded, keys left held, access, overflow).
#include "tools/virtual-desk/DeskImpl.h"
#include "tools/virtual-desk/InputCodes.h"

#include <algorithm>
#include <stdexcept>

namespace VirtualDesk {

void Desk::pressKey(std::string_view device, int code, int value)
{
    if (value < 0 || value > 2)
        throw std::invalid_argument("virtual desk: key value " + std::to_string(value) + " (expected 1 down, 2 repeat, 0 up)");
    std::lock_guard lk(impl->mu);
    InputDevice& d = impl->input->lookup(device);
    if (!d.dev.alive())
        throw std::invalid_argument("virtual desk: " + d.node + " is gone");
    const auto& caps = d.dev.capabilities();
    if (!caps.key.test(code))
        throw std::invalid_argument("virtual desk: " + d.node + " (" + d.label + ") has no key " + keyName(code));
    std::vector<RawInput> frame;
    if (caps.msc.test(MSC_SCAN) && d.scan != ScanCodes::None)
        frame.push_back({EV_MSC, MSC_SCAN, scanCode(d.scan, code)});
    frame.push_back({EV_KEY, static_cast<uint16_t>(code), value});
    frame.push_back({EV_SYN, SYN_REPORT, 0});
    impl->input->record({impl->now(), d.node, "key", EV_KEY, code, value, ""});
    impl->input->emitFrame(d, frame, "");
}

void Desk::setSwitch(std::string_view device, int code, bool closed)
{
    std::lock_guard lk(impl->mu);
    InputDevice& d = impl->input->lookup(device);
    if (!d.dev.alive())
        throw std::invalid_argument("virtual desk: " + d.node + " is gone");
    if (code < 0 || code > SW_MAX || !d.dev.capabilities().sw.test(code))
        throw std::invalid_argument("virtual desk: " + d.node + " (" + d.label + ") has no switch " + std::to_string(code));
    impl->input->record({impl->now(), d.node, "switch", EV_SW, code, closed ? 1 : 0, ""});
    impl->input->emitFrame(d, {{EV_SW, static_cast<uint16_t>(code), closed ? 1 : 0}, {EV_SYN, SYN_REPORT, 0}}, "");
}

std::string Desk::addKeyboard(const KeyboardConfig& keyboard)
{
    InputDevice* d;
    {
        std::lock_guard lk(impl->mu);
        DeskConfig one;
        one.keyboards = {keyboard};
        try {
            one.validate();
        } catch (const std::runtime_error& e) {
            throw std::invalid_argument(std::string("virtual desk: addKeyboard: ") + e.what());
        }
        d = &impl->input->createKeyboard(keyboard);
    }
    impl->input->publish(*d);
    return d->node;
}

void Desk::removeKeyboard(std::string_view device)
{
    InputDevice* d;
    {
        std::lock_guard lk(impl->mu);
        d = &impl->input->lookup(device);
        if (!d->dev.alive())
            throw std::invalid_argument("virtual desk: " + d->node + " is gone already");
        if (d->clone)
            throw std::invalid_argument("virtual desk: " + d->node + " is a uinput device; its descriptor destroys it");
        impl->input->retire(*d);
    }
    impl->input->unpublish(*d);
}

std::vector<std::string> Desk::keyboards() const
{
    std::lock_guard lk(impl->mu);
    std::vector<std::pair<int, std::string>> found;
    for (const auto& [node, d] : impl->input->live)
        if (!d->clone)
            found.emplace_back(d->event, node);
    std::sort(found.begin(), found.end());
    std::vector<std::string> out;
    for (auto& [n, node] : found)
        out.push_back(node);
    return out;
}

bool Desk::grabbed(std::string_view device) const
{
    std::lock_guard lk(impl->mu);
    const InputDevice& d = impl->input->lookup(device);
    return d.dev.alive() && d.dev.grabber() != 0;
}

int Desk::openCount(std::string_view device) const
{
    std::lock_guard lk(impl->mu);
    const InputDevice& d = impl->input->lookup(device);
    return d.dev.alive() ? static_cast<int>(d.dev.readerCount()) : 0;
}

std::vector<std::string> Desk::clones() const
{
    std::lock_guard lk(impl->mu);
    std::vector<std::string> out;
    for (const auto& d : impl->input->devices)
        if (d->clone && d->dev.alive())
            out.push_back(d->node);
    return out;
}

std::vector<InputEvent> Desk::forwarded() const
{
    std::lock_guard lk(impl->mu);
    std::vector<InputEvent> out;
    for (const auto& [clone, e] : impl->input->forwardedLog)
        out.push_back(e);
    return out;
}

std::vector<InputEvent> Desk::forwarded(std::string_view clone) const
{
    std::lock_guard lk(impl->mu);
    const InputDevice& d = impl->input->lookup(clone); // the live clone behind the node, else the last one
    std::vector<InputEvent> out;
    for (const auto& [c, e] : impl->input->forwardedLog)
        if (c == &d)
            out.push_back(e);
    return out;
}

std::vector<int> Desk::heldKeys(std::string_view device) const
{
    std::lock_guard lk(impl->mu);
    const InputDevice& d = impl->input->lookup(device);
    return d.dev.alive() ? d.dev.keyState().list() : d.heldAtEnd;
}

void Desk::setAccess(std::string_view node, const std::string& mode)
{
    std::lock_guard lk(impl->mu);
    if (node == "/dev/uinput" || node == "uinput") {
        if (!impl->input->uinputNode)
            throw std::invalid_argument("virtual desk: this desk has no /dev/uinput");
        impl->input->uinputNode->setMode(mode);
        impl->input->record({impl->now(), "/dev/uinput", "access", -1, -1, 0, mode});
    } else {
        InputDevice& d = impl->input->lookup(node);
        if (!d.dev.alive())
            throw std::invalid_argument("virtual desk: " + d.node + " is gone");
        d.pty->setMode(mode);
        impl->input->record({impl->now(), d.node, "access", -1, -1, 0, mode});
    }
    impl->notifyLocked();
}

void Desk::overflow(std::string_view device)
{
    std::lock_guard lk(impl->mu);
    InputDevice& d = impl->input->lookup(device);
    d.dev.overflowNext();
    impl->notifyLocked();
}

} // namespace VirtualDesk
