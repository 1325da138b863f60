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

TYPED_TEST(LockTest, ExcludesOtherThreadsAndTryLockFailsWhileHeldElsewhere) {
    TypeParam lock;
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

    bool taken = true;
    std::lock_guard guard(lock);
    std::thread([&] { taken = lock.try_lock(); }).join();
    EXPECT_FALSE(taken);
}

TEST(RecursiveLock, TheHolderMayRetakeItAndHoldsItUntilAsManyUnlocks) {
    RecursiveLock lock;
    std::lock_guard outer(lock);
    ASSERT_TRUE(lock.tryLock());
    lock.unlock();
    bool taken = true;
    std::thread([&] { taken = lock.tryLock(); }).join();
    EXPECT_FALSE(taken);  // still held once by this thread
}

}  // namespace
