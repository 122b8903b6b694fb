// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A serial work queue: one worker thread runs the submitted work items one at a time, in submission order.
// The thread starts with the queue. Destroying the queue runs what is still pending, then joins the thread, so
// nothing submitted is lost and nothing runs afterwards; work that is still being submitted while the queue is
// destroyed, or destroying the queue from one of its own work items, is a caller error. A work item that throws
// is dropped and the queue goes on.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Lumora {

class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Appends a work item and returns at once; callable from any thread, the queue's own included.
    void async(std::function<void()> work);

    const std::string& label() const { return label_; }

private:
    void run();

    const std::string label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> pending_;
    bool stopping_ = false;
    std::thread worker_;  // last: starts once everything above exists
};

}  // namespace Lumora
