// Helpers shared by the thread group tests.
#pragma once

#include <vxtools3/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace vxtest {

// Ends the process when a test body outlives its bound, so that a lost wake-up shows as a
// named failure instead of a hung test binary.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds bound)
        : thread_([this, bound] {
              std::unique_lock lock(mutex_);
              if (!done_.wait_for(lock, bound, [this] { return finished_; })) {
                  std::fprintf(stderr, "watchdog: %s did not end within %lld s\n",
                               ::testing::UnitTest::GetInstance()->current_test_info()->name(),
                               static_cast<long long>(bound.count()));
                  std::abort();
              }
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        done_.notify_one();
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

private:
    std::mutex mutex_;
    std::condition_variable done_;
    bool finished_ = false;
    std::thread thread_;
};

// Owns a group for the length of a test.
struct GroupHolder {
    explicit GroupHolder(int maxThreads) : group(MTGroupCreate(maxThreads)) {}
    ~GroupHolder() { MTGroupDestroy(group); }
    GroupHolder(const GroupHolder &) = delete;
    GroupHolder &operator=(const GroupHolder &) = delete;
    MTGroupID group;
};

// Spins until `flag` becomes non-zero, yielding the processor (tests run on two cores).
inline void AwaitFlag(const std::atomic<int> &flag, int value = 1)
{
    while (flag.load(std::memory_order_acquire) < value)
        std::this_thread::yield();
}

}  // namespace vxtest
