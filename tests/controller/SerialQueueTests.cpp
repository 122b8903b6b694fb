// SerialQueue: one worker, first in first out, failures contained, destruction runs what is pending.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Lumora/App/SerialQueue.h"

using Lumora::SerialQueue;

namespace {

// A one-shot latch with a bounded wait.
class Latch {
public:
    void open()
    {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            open_ = true;
        }
        changed_.notify_all();
    }
    bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> hold(mutex_);
        return changed_.wait_for(hold, timeout, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

TEST(SerialQueue, RunsWorkInSubmissionOrderOnOneThreadThatIsNotTheCallers)
{
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    Latch done;
    {
        SerialQueue queue("org.lumora.Lumora.ddc.2");
        EXPECT_EQ(queue.label(), "org.lumora.Lumora.ddc.2");
        for (int i = 0; i < 100; ++i) {
            queue.async([&, i] {
                order.push_back(i);
                threads.push_back(std::this_thread::get_id());
                if (i == 99) {
                    done.open();
                }
            });
        }
        ASSERT_TRUE(done.wait());
    }
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[i], i);
        EXPECT_EQ(threads[i], threads[0]);
    }
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST(SerialQueue, NeverRunsTwoItemsAtOnce)
{
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    {
        SerialQueue queue("test");
        for (int i = 0; i < 200; ++i) {
            queue.async([&] {
                if (running.fetch_add(1) != 0) {
                    overlapped = true;
                }
                std::this_thread::yield();
                running.fetch_sub(1);
            });
        }
    }
    EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, AnItemThatThrowsDoesNotStopTheOnesBehindIt)
{
    Latch after;
    SerialQueue queue("test");
    queue.async([] { throw std::runtime_error("boom"); });
    queue.async([&] { after.open(); });
    EXPECT_TRUE(after.wait());
}

TEST(SerialQueue, DestructionRunsWhatIsStillPendingThenJoins)
{
    std::atomic<int> ran{0};
    Latch release;
    {
        SerialQueue queue("test");
        queue.async([&] {
            release.wait();
            ++ran;
        });
        for (int i = 0; i < 10; ++i) {
            queue.async([&] { ++ran; });
        }
        release.open();
    }
    EXPECT_EQ(ran.load(), 11);
}

TEST(SerialQueue, WorkMaySubmitMoreWorkToItsOwnQueue)
{
    Latch done;
    SerialQueue queue("test");
    queue.async([&] { queue.async([&] { done.open(); }); });
    EXPECT_TRUE(done.wait());
}

TEST(SerialQueue, AnIdleQueueIsDestroyedAtOnce)
{
    const auto start = std::chrono::steady_clock::now();
    { SerialQueue queue("idle"); }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace
