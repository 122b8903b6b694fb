// SerialQueue: destroying it runs what is still pending, then joins. (Its order and its one thread are what every
// controller test relies on; they are caught there.)

#include <gtest/gtest.h>

#include <future>

#include "Lumora/App/SerialQueue.h"

namespace {

TEST(SerialQueue, DestructionRunsWhatIsStillPendingThenJoins)
{
    std::promise<void> release;
    int ran = 0;  // touched by the worker only, until the join
    {
        Lumora::SerialQueue queue("test");
        queue.async([opened = release.get_future().share()] { opened.wait(); });
        for (int i = 0; i < 10; ++i) {
            queue.async([&ran] { ++ran; });
        }
        release.set_value();
    }
    EXPECT_EQ(ran, 10);
}

}  // namespace
