// kelvo preview simulate: every task is accounted for in the report, cancelled ones stop
// early, and bad options get our own message.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli_test_util.h"

namespace kelvo::cli {
namespace {
using namespace testing_cli;

TEST(PreviewSimulateCommandTest, ReportsEveryTaskAndRefusesBadOptions) {
    ToolRun run = Kelvo(
        "preview simulate --tasks 4 --iterations 6 --spin 0.2 --priority 1 --cancel 2 --seed 3 "
        "--json");
    ASSERT_EQ(run.status, 0) << run.out;
    nlohmann::json report = nlohmann::json::parse(run.out);
    ASSERT_EQ(report["tasks"].size(), 4u);
    int cancelled = 0, priority = 0;
    for (const auto& t : report["tasks"]) {
        priority += t["priority"].get<bool>();
        if (t["cancelled"].get<bool>()) {
            ++cancelled;
            EXPECT_LT(t["deliveries"].get<int>(), 6) << t;
        } else {
            // A preemption that lands after an iteration's work but before its end discards
            // that result, so a normal task may show fewer images than iterations.
            EXPECT_GE(t["deliveries"].get<int>(), 1) << t;
            EXPECT_LE(t["deliveries"].get<int>(), 6) << t;
            EXPECT_EQ(t["iterations"], 6) << t;
            EXPECT_GE(t["firstImageMs"].get<double>(), 0.0);
        }
    }
    EXPECT_EQ(cancelled, 2);
    EXPECT_EQ(priority, 1);
    EXPECT_GE(report["overheadPerIterationUs"].get<double>(), 0.0);

    EXPECT_EQ(Kelvo("preview simulate --tasks 0"),
              Failed("Illegal argument: --tasks must be from 1 to 1000."));
    EXPECT_EQ(Kelvo("preview simulate --tasks 2 --cancel 3"),
              Failed("Illegal argument: --cancel must be from 0 to 2."));
    EXPECT_EQ(Kelvo("preview simulate --spin -1"),
              Failed("Illegal argument: --spin must be from 0 to 1000 ms."));
}

}  // namespace
}  // namespace kelvo::cli
