// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/SerialQueue.h"

#include <utility>

namespace Lumora {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), worker_([this] { run(); }) {}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard<std::mutex> hold(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    worker_.join();
}

void SerialQueue::async(std::function<void()> work)
{
    if (!work) {
        return;
    }
    {
        std::lock_guard<std::mutex> hold(mutex_);
        pending_.push_back(std::move(work));
    }
    wake_.notify_one();
}

void SerialQueue::run()
{
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock<std::mutex> hold(mutex_);
            wake_.wait(hold, [this] { return stopping_ || !pending_.empty(); });
            if (pending_.empty()) {
                return;  // stopping, and everything submitted has run
            }
            work = std::move(pending_.front());
            pending_.pop_front();
        }
        try {
            work();
        } catch (...) {
            // A failed work item must not stop the ones behind it.
        }
    }
}

}  // namespace Lumora
