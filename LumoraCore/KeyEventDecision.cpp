#include "LumoraCore/KeyEventDecision.h"

namespace Lumora::KeyEventDecision {

bool isBrightnessPress(const KeyEvent& event)
{
    return event.type == InputCode::typeKey &&
           (event.code == InputCode::keyBrightnessDown || event.code == InputCode::keyBrightnessUp) &&
           (event.value == InputCode::valueDown || event.value == InputCode::valueRepeat);
}

KeyOutcome decide(const KeyEvent& event, bool option, const std::vector<TargetResolver::Display>& displays,
                  const std::optional<Rect>& focusedWindow, Point cursor)
{
    if (!isBrightnessPress(event) || displays.empty())
        return {};
    const std::optional<TargetResolver::Decision> decision = TargetResolver::resolve(displays, focusedWindow, cursor);
    if (!decision || decision->action != TargetResolver::Action::adjust)
        return {};
    const bool up = event.code == InputCode::keyBrightnessUp;
    if (option)
        return {KeyOutcome::Call::setBrightness, decision->displayID, up ? 1.0 : 0.0, true};
    return {KeyOutcome::Call::step, decision->displayID, up ? stepSize : -stepSize, true};
}

}  // namespace Lumora::KeyEventDecision
