#include "brefir/semaphore.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "pnl/proc.h"

namespace {

using Thread::Semaphore;
using Thread::SemaphoreError;
using Thread::SemaphoreLock;

TEST(Semaphore, CountsItsSlots) {
  Semaphore slots(2);
  {
    const SemaphoreLock first(slots);
    ASSERT_TRUE(Semaphore::TryWait(slots));
    EXPECT_EQ(Semaphore::Value(slots), 0);
    EXPECT_FALSE(Semaphore::TryWait(slots));
    EXPECT_FALSE(Semaphore::TimedWait(slots, pnl_date::DateTime()));
    auto third = std::async(std::launch::async, [&] { const SemaphoreLock lock(slots); });
    EXPECT_EQ(third.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    Semaphore::Post(slots);
    third.get();
  }
  EXPECT_TRUE(Semaphore::TimedWait(slots, pnl_date::DateTime()));  // a free slot needs no time
  EXPECT_EQ(Semaphore::Value(slots), 1);
  EXPECT_EQ(slots.InitValue(), 2U);
}

TEST(Semaphore, LimitsThreadsAndGivesSlotsBackAfterExceptions) {
  Semaphore slots(3);
  std::atomic<int> inside = 0;
  std::atomic<int> most = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 24; ++i) {
    threads.emplace_back([&] {
      try {
        const SemaphoreLock slot(slots);
        const int now = ++inside;
        for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) continue;
        pnl_proc::Sleep(2);
        --inside;
        throw std::runtime_error("work failed");
      } catch (const std::runtime_error&) {
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(most, 3);
  EXPECT_EQ(Semaphore::Value(slots), 3);
}

// A wait that a signal interrupts ends without a slot, whatever the handler's flags say.
TEST(Semaphore, TellsWhatFailed) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  const std::pair<const char*, void (*)(Semaphore&)> waits[] = {
      {"wait", [](Semaphore& slots) { Semaphore::Wait(slots); }},
      {"timedwait", [](Semaphore& slots) {
         Semaphore::TimedWait(slots, pnl_date::DateTime(pnl_date::DateTime::Now().Seconds() + 60));
       }}};
  for (const auto& [func, wait] : waits) {
    Semaphore slots(0);
    std::atomic<bool> done = false;
    std::thread waiter([&, wait = wait, func = func] {
      try {
        wait(slots);
        ADD_FAILURE() << func;
      } catch (const SemaphoreError& error) {
        EXPECT_STREQ(error.what(), (std::string("semaphore_err (func=") + func +
                                    ", errno=4, errmsg=Interrupted system call)")
                                       .c_str());
      }
      done = true;
    });
    while (!done) {
      pthread_kill(waiter.native_handle(), SIGUSR1);
      pnl_proc::Sleep(1);
    }
    waiter.join();
    EXPECT_EQ(Semaphore::Value(slots), 0);
  }
  EXPECT_THROW(Semaphore(static_cast<unsigned>(SEM_VALUE_MAX) + 1), SemaphoreError);
}

}  // namespace
