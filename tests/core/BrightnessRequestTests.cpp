// SPDX-License-Identifier: GPL-3.0-or-later
// Which values a request from outside the panel may carry, and what it is told when it may not, up to the last
// double on either side of each range.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "LumoraCore/BrightnessRequest.h"

using namespace Lumora;
using BrightnessRequest::Fault;

TEST(BrightnessRequest, FractionsFromZeroToOneAndStepsFromMinusOneToOneBothIncluded)
{
    constexpr double inf = std::numeric_limits<double>::infinity(), tiny = std::numeric_limits<double>::denorm_min();
    const std::string fraction = "The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not ";
    const std::string step = "A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps), not ";
    const struct {
        bool isStep;
        double value;
        std::optional<Fault> fault;
        const char* shown;  // how the value is written in the message
    } cases[] = {
        {false, 0.0, {}, ""}, {false, -0.0, {}, ""}, {false, 1.0, {}, ""}, {false, tiny, {}, ""},
        {false, -tiny, Fault::outOfRange, "-5e-324"},
        {false, std::nextafter(1.0, 2.0), Fault::outOfRange, "1.0000000000000002"},
        {false, -0.1, Fault::outOfRange, "-0.1"},
        {false, 50.0, Fault::outOfRange, "50"},
        {false, std::nan(""), Fault::notFinite, "nan"},
        {false, -inf, Fault::notFinite, "-inf"},
        {true, -1.0, {}, ""}, {true, 1.0, {}, ""}, {true, -0.0625, {}, ""},
        {true, std::nextafter(-1.0, -2.0), Fault::outOfRange, "-1.0000000000000002"},
        {true, 2.0, Fault::outOfRange, "2"},
        {true, inf, Fault::notFinite, "inf"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const auto rejection =
            c.isStep ? BrightnessRequest::checkDelta(c.value) : BrightnessRequest::checkFraction(c.value);
        ASSERT_EQ(rejection.has_value(), c.fault.has_value());
        if (rejection) {
            EXPECT_EQ(rejection->fault, *c.fault);
            EXPECT_EQ(rejection->message, (c.isStep ? step : fraction) + c.shown + ".");
        }
    }
}

TEST(BrightnessRequest, RefusalsSayWhenNoDisplayIsListed)
{
    // (Refusals naming the displays listed are checked over the bus.)
    const std::pair<std::string, const char*> cases[] = {
        {BrightnessRequest::unknownDisplay(42, {}), "There is no display 42; no display is listed (yet)."},
        {BrightnessRequest::notAdjustable(120, {}),
         "Display 120, the display in use, is not one Lumora can adjust; no display is listed (yet)."},
    };
    for (const auto& [message, expected] : cases)
        EXPECT_EQ(message, expected);
}
