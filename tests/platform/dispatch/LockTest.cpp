#include <krcommon/platform/dispatch/Lock.h>
#include <krcommon/platform/dispatch/RecursiveLock.h>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

using namespace krcommon::platform;

namespace {

template <class L>
class LockTest : public ::testing::Test {};
using LockTypes = ::testing::Types<Lock, RecursiveLock>;
TYPED_TEST_SUITE(LockTest, LockTypes);

TYPED_TEST(LockTest, GuardsAgainstOtherThreads) {
    TypeParam lock("counter");
    EXPECT_EQ(lock.name(), "counter");
    long counter = 0;  // a plain long: only the lock keeps the increments whole
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                std::lock_guard guard(lock);
                ++counter;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);
}

TYPED_TEST(LockTest, TryLockFailsWhileAnotherThreadHoldsIt) {
    TypeParam lock;
    EXPECT_EQ(lock.name(), "");
    lock.lock();
    bool taken = true;
    std::thread([&] { taken = lock.tryLock(); }).join();
    EXPECT_FALSE(taken);
    lock.unlock();
    std::thread([&] {
        std::unique_lock guard(lock, std::try_to_lock);
        taken = guard.owns_lock();
    }).join();
    EXPECT_TRUE(taken);
}

TEST(RecursiveLock, TheHoldingThreadMayTakeItAgain) {
    RecursiveLock lock("re");
    std::lock_guard outer(lock);
    ASSERT_TRUE(lock.tryLock());
    {
        std::lock_guard inner(lock);
    }
    lock.unlock();
    bool taken = true;
    std::thread([&] { taken = lock.tryLock(); }).join();
    EXPECT_FALSE(taken);  // still held once by this thread
}

}  // namespace
