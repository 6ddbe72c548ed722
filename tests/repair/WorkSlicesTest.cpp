// Work slices: the split of items over threads, and the processor description.
#include "repair/WorkSlices.h"

#include "repair/Processor.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>

namespace quelm {
namespace {

using Slices = std::vector<std::pair<std::size_t, std::size_t>>;

TEST(WorkSlicesTest, LastSliceTakesTheRemainderAndEveryItemIsVisitedOnce) {
    EXPECT_EQ(workSlices(10, 4), (Slices{{0, 2}, {2, 4}, {4, 6}, {6, 10}}));
    EXPECT_EQ(workSlices(2, 3), (Slices{{0, 0}, {0, 0}, {0, 2}})) << "more threads than items";
    std::vector<std::atomic<int>> visits(1001);
    runWorkSlices(visits.size(), 7, "unused", [&](std::size_t begin, std::size_t end) {
        for (auto i = begin; i < end; ++i)
            ++visits[i];
    });
    EXPECT_TRUE(std::ranges::all_of(visits, [](const auto& count) { return count == 1; }));
}

TEST(WorkSlicesDeathTest, NoThreadsStops) {
    EXPECT_DEATH(runWorkSlices(4, 0, "QVTest::FatalError: no threads", [](auto, auto) {}),
                 "QVTest::FatalError: no threads");
}

TEST(ProcessorTest, ReadsTheFirstProcessorOfCpuInfo) {
    const auto cpu = Processor::fromCpuInfo("processor\t: 0\nmodel name\t: Intel(R) Core(TM) i7\n"
                                            "siblings\t: 8\ncpu cores\t: 4\n\n"
                                            "processor\t: 1\nmodel name\t: Other\n");
    EXPECT_EQ(cpu.description(), "Intel(R) Core(TM) i7 4C8T");
    EXPECT_EQ(Processor::fromCpuInfo("garbage").description(), "Unknown CT");
}

} // namespace
} // namespace quelm
