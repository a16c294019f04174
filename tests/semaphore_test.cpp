#include "brefir/semaphore.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

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
  const auto fail = [&] {
    const SemaphoreLock slot(slots);
    throw std::runtime_error("work failed");
  };
  EXPECT_THROW(fail(), std::runtime_error);
  EXPECT_TRUE(Semaphore::TimedWait(slots, pnl_date::DateTime()));  // a free slot needs no time
  EXPECT_EQ(Semaphore::Value(slots), 1);
  EXPECT_EQ(slots.InitValue(), 2U);
}

TEST(Semaphore, TellsWhatFailed) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  Semaphore slots(0);
  std::atomic<bool> done = false;
  std::thread waiter([&] {
    try {
      Semaphore::Wait(slots);
      ADD_FAILURE() << "a signal gave a slot";
    } catch (const SemaphoreError& error) {
      EXPECT_STREQ(error.what(),
                   "semaphore_err (func=wait, errno=4, errmsg=Interrupted system call)");
    }
    done = true;
  });
  while (!done) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    pnl_proc::Sleep(1);
  }
  waiter.join();
  EXPECT_EQ(Semaphore::Value(slots), 0);
  EXPECT_THROW(Semaphore(static_cast<unsigned>(SEM_VALUE_MAX) + 1), SemaphoreError);
}

}  // namespace
