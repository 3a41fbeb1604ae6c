#include "Dispatch.h"
#include "MainQueue.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

using namespace plexa;
using namespace std::chrono_literals;
using plexa::test::pumpMainUntil;

TEST(PXMainQueueTest, MainThreadIsWhoeverRunsTheLoop) {
  auto& main = PXMainQueue::shared();
  EXPECT_FALSE(main.isMainThread()) << "not running the loop";
  EXPECT_FALSE(main.runUntil([] { return false; }, 30ms)) << "times out with a false predicate";
  EXPECT_TRUE(main.runUntil([] { return true; }, 0ms));

  // perform off the loop queues; perform on the loop runs at once, before
  // anything queued after the running block.
  std::vector<std::string> order;
  bool sawMain = false;
  main.perform([&] {
    sawMain = main.isMainThread();
    main.async([&] { order.push_back("queued later"); });
    main.perform([&] { order.push_back("inline"); });
    order.push_back("after inline");
  });
  EXPECT_TRUE(order.empty()) << "nothing runs until the loop does";
  ASSERT_TRUE(pumpMainUntil([&] { return order.size() == 3; }));
  EXPECT_TRUE(sawMain);
  EXPECT_EQ(order, (std::vector<std::string>{"inline", "after inline", "queued later"}));
  EXPECT_FALSE(main.isMainThread());

  // Blocks posted from another thread arrive on the loop, in order.
  std::vector<int> fromWorker;
  std::atomic<bool> allOnMain{true};
  std::thread worker([&] {
    for (int i = 0; i < 100; ++i)
      main.async([&, i] {
        allOnMain = allOnMain && main.isMainThread();
        fromWorker.push_back(i);
      });
  });
  worker.join();
  ASSERT_TRUE(pumpMainUntil([&] { return fromWorker.size() == 100; }));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(fromWorker[i], i);
  EXPECT_TRUE(allOnMain);
}

TEST(PXMainQueueTest, DelayedBlocksWaitTheirTurn) {
  auto& main = PXMainQueue::shared();
  std::vector<int> fired;
  auto start = std::chrono::steady_clock::now();
  main.after(120ms, [&] { fired.push_back(2); });
  main.after(20ms, [&] { fired.push_back(1); });
  EXPECT_FALSE(pumpMainUntil([&] { return fired.size() == 2; }, 60ms));
  ASSERT_TRUE(pumpMainUntil([&] { return fired.size() == 2; }, 5s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 120ms);
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
}

TEST(PXDispatchQueues, SerialRunsOneAtATimeInOrderConcurrentOverlaps) {
  auto serial = PXMakeSerialQueue("test.serial");
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> inside{0};
  std::atomic<int> mostInside{0};
  auto group = PXDispatchGroup::make();
  for (int i = 0; i < 200; ++i) {
    group->enter();
    serial->async([&, i] {
      int now = ++inside;
      mostInside = std::max(mostInside.load(), now);
      if (i % 50 == 0) std::this_thread::sleep_for(2ms);
      {
        std::lock_guard lock(mutex);
        order.push_back(i);
      }
      --inside;
      group->leave();
    });
  }
  ASSERT_TRUE(group->wait(10s));
  EXPECT_EQ(mostInside.load(), 1);
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);

  // Two blocks that each wait for the other finish only if they run at once.
  auto concurrent = PXMakeConcurrentQueue("test.concurrent");
  std::mutex m;
  std::condition_variable cv;
  int arrived = 0;
  std::atomic<int> met{0};
  for (int i = 0; i < 2; ++i)
    concurrent->async([&] {
      std::unique_lock lock(m);
      ++arrived;
      cv.notify_all();
      if (cv.wait_for(lock, 5s, [&] { return arrived == 2; })) ++met;
    });
  for (auto deadline = std::chrono::steady_clock::now() + 6s; met < 2 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(5ms);
  EXPECT_EQ(met.load(), 2);
}

TEST(PXDispatchGroupTest, NotifyFiresOnceAfterEveryLeave) {
  auto group = PXDispatchGroup::make();
  std::atomic<int> finished{0};
  std::atomic<int> notified{0};
  std::atomic<int> finishedWhenNotified{-1};
  for (int i = 0; i < 16; ++i) {
    group->enter();
    PXGlobalQueue()->async([&, group, i] {
      std::this_thread::sleep_for(std::chrono::milliseconds(i % 4));
      ++finished;
      group->leave();
    });
  }
  group->notify(PXMainDispatchQueue(), [&] {
    finishedWhenNotified = finished.load();
    ++notified;
  });
  ASSERT_TRUE(pumpMainUntil([&] { return notified > 0; }));
  EXPECT_EQ(finishedWhenNotified.load(), 16);
  PXMainQueue::shared().runUntil([] { return false; }, 50ms);
  EXPECT_EQ(notified.load(), 1);
  EXPECT_TRUE(group->wait(0ms));
}

TEST(PXDispatchGroupTest, EmptyGroupsAndUnbalancedLeaves) {
  // Nothing outstanding: notify is queued right away, still asynchronously.
  auto empty = PXDispatchGroup::make();
  bool fired = false;
  empty->notify(PXMainDispatchQueue(), [&] { fired = true; });
  EXPECT_FALSE(fired);
  EXPECT_TRUE(pumpMainUntil([&] { return fired; }));

  // A stray leave does not drive the count below zero and steal a later enter.
  auto group = PXDispatchGroup::make();
  group->leave();
  group->enter();
  std::atomic<bool> done{false};
  group->notify(PXGlobalQueue(), [&] { done = true; });
  EXPECT_FALSE(group->wait(30ms));
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(done);
  group->leave();
  EXPECT_TRUE(group->wait(5s));
  for (auto deadline = std::chrono::steady_clock::now() + 5s; !done && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(2ms);
  EXPECT_TRUE(done);
}
