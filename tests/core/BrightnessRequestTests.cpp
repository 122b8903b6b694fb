// Which values a request from outside the panel may carry, and what it is told when it may not, up to the last
// double on either side of each range.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "LumoraCore/BrightnessRequest.h"

using namespace Lumora;
using BrightnessRequest::Fault;

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double tiny = std::numeric_limits<double>::denorm_min();

struct Case {
    double value;
    std::optional<Fault> fault;
    const char* shown;  // how the value is written in the message
};

}  // namespace

TEST(BrightnessRequest, AFractionIsFromZeroToOneBothIncluded)
{
    const Case cases[] = {
        {0.0, std::nullopt, ""},
        {-0.0, std::nullopt, ""},
        {1.0, std::nullopt, ""},
        {0.01, std::nullopt, ""},
        {0.5, std::nullopt, ""},
        {tiny, std::nullopt, ""},
        {-tiny, Fault::outOfRange, "-5e-324"},
        {std::nextafter(1.0, 2.0), Fault::outOfRange, "1.0000000000000002"},
        {1.5, Fault::outOfRange, "1.5"},
        {-0.1, Fault::outOfRange, "-0.1"},
        {50.0, Fault::outOfRange, "50"},
        {notANumber, Fault::notFinite, "nan"},
        {inf, Fault::notFinite, "inf"},
        {-inf, Fault::notFinite, "-inf"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        const auto rejection = BrightnessRequest::checkFraction(c.value);
        ASSERT_EQ(rejection.has_value(), c.fault.has_value());
        if (rejection) {
            EXPECT_EQ(rejection->fault, *c.fault);
            EXPECT_EQ(rejection->message,
                      std::string("The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not ") + c.shown + ".");
        }
    }
}

TEST(BrightnessRequest, AStepIsFromMinusOneToOneBothIncluded)
{
    const Case cases[] = {
        {0.0, std::nullopt, ""},
        {1.0, std::nullopt, ""},
        {-1.0, std::nullopt, ""},
        {0.0625, std::nullopt, ""},
        {-0.0625, std::nullopt, ""},
        {std::nextafter(-1.0, -2.0), Fault::outOfRange, "-1.0000000000000002"},
        {2.0, Fault::outOfRange, "2"},
        {-6.25, Fault::outOfRange, "-6.25"},
        {notANumber, Fault::notFinite, "nan"},
        {-inf, Fault::notFinite, "-inf"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        const auto rejection = BrightnessRequest::checkDelta(c.value);
        ASSERT_EQ(rejection.has_value(), c.fault.has_value());
        if (rejection) {
            EXPECT_EQ(rejection->fault, *c.fault);
            EXPECT_EQ(rejection->message,
                      std::string("A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key "
                                  "steps), not ") +
                          c.shown + ".");
        }
    }
}

TEST(BrightnessRequest, RefusalsNameTheDisplaysThereAre)
{
    const BrightnessRequest::Listed desk{{103, "DELL U2720Q"}, {95, "Built-in Display"}};
    const struct {
        std::string message;
        const char* expected;
    } cases[] = {
        {BrightnessRequest::unknownDisplay(42, desk),
         "There is no display 42; the displays are 103 (DELL U2720Q), 95 (Built-in Display)."},
        {BrightnessRequest::unknownDisplay(42, {}), "There is no display 42; no display is listed (yet)."},
        {BrightnessRequest::notAdjustable(120, desk),
         "Display 120, the display in use, is not one Lumora can adjust; the displays are 103 (DELL U2720Q), 95 "
         "(Built-in Display)."},
        {BrightnessRequest::notAdjustable(120, {}),
         "Display 120, the display in use, is not one Lumora can adjust; no display is listed (yet)."},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.message, c.expected);
}
