// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/KeyEventDecision.h"

namespace Lumora::KeyEventDecision {

bool isBrightnessPress(const KeyEvent& event)
{
    return event.type == InputCode::typeKey &&
           (event.code == InputCode::keyBrightnessDown || event.code == InputCode::keyBrightnessUp) &&
           (event.value == InputCode::valueDown || event.value == InputCode::valueRepeat);
}

KeyOutcome decide(const KeyEvent& event, bool option, const std::optional<TargetResolver::Decision>& inUse)
{
    if (!isBrightnessPress(event) || !inUse || inUse->action != TargetResolver::Action::adjust)
        return {};
    const bool up = event.code == InputCode::keyBrightnessUp;
    if (option)
        return {KeyOutcome::Call::setBrightness, inUse->displayID, up ? 1.0 : 0.0, true};
    return {KeyOutcome::Call::step, inUse->displayID, up ? stepSize : -stepSize, true};
}

}  // namespace Lumora::KeyEventDecision
