#include <krcommon/platform/dispatch/OperationQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

struct WidthRow {
    const char* name;
    int count;
    bool waitByDestructor;
    friend void PrintTo(const WidthRow& r, std::ostream* os) { *os << r.name; }
};

class OperationQueueWidth : public ::testing::TestWithParam<WidthRow> {};

// Never more than the width at once, every operation exactly once, a serial queue in the order
// added; waiting, or the destructor, returns only once every operation has finished.
TEST_P(OperationQueueWidth, RunsAtMostItsWidthAtOnceAndEachOperationOnce) {
    const auto [name, count, waitByDestructor] = GetParam();
    const int hardware = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const int width = count == -1 ? std::clamp(hardware, 2, 64) : count;
    const int meet = std::min({width, hardware, 2});  // how many any pool of workers runs together
    const int total = width == 1 ? 3000 : 8 * width;
    std::atomic<int> inside{0}, most{0}, finished{0};
    std::mutex mutex;
    std::vector<int> started;
    EXPECT_THROW(OperationQueue(-count - 1), InternalInconsistencyException);  // neither -1 nor positive
    {
        OperationQueue queue(count);
        EXPECT_THROW(queue.addOperation({}), InternalInconsistencyException);
        for (int i = 0; i < total; ++i) {
            queue.addOperation([&, i] {
                {
                    std::lock_guard lock(mutex);
                    most = std::max(most.load(), ++inside);
                    started.push_back(i);
                }
                for (auto until = std::chrono::steady_clock::now() + 5s;  // the first ones meet
                     most < meet && std::chrono::steady_clock::now() < until;)
                    std::this_thread::sleep_for(100us);
                --inside;
                ++finished;
            });
        }
        if (!waitByDestructor) {
            queue.waitUntilAllOperationsAreFinished();
            EXPECT_EQ(finished.load(), total);
        }
    }
    EXPECT_EQ(finished.load(), total);
    EXPECT_LE(most.load(), width);
    EXPECT_GE(most.load(), meet);
    if (width > 1) std::sort(started.begin(), started.end());
    ASSERT_EQ(started.size(), static_cast<std::size_t>(total));
    for (int i = 0; i < total; ++i) ASSERT_EQ(started[static_cast<std::size_t>(i)], i);
}

INSTANTIATE_TEST_SUITE_P(Widths, OperationQueueWidth,
                         ::testing::Values(WidthRow{"SerialWaited", 1, false}, WidthRow{"SerialDestroyed", 1, true},
                                           WidthRow{"ThreeWaited", 3, false}, WidthRow{"ThreeDestroyed", 3, true},
                                           WidthRow{"DefaultWaited", -1, false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
