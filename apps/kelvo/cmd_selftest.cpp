// kelvo selftest: runs the modules' built-in self-tests and speed tests.
#include <iostream>
#include <memory>

#include "cli_common.h"
#include "commands.h"

namespace kelvo::cli {

void AddSelfTestCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd =
        app.add_subcommand("selftest",
                           "Run every registered self-test and speed test and print their results "
                           "(--set g_runUnitTestRenderStatistics=true adds statistics)");
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, "One JSON object per test");
    cmd->callback([&context, &status, json] {
        RunCommand(context, status, [&]() -> Result<int> {
            int failed = 0;
            for (const host::SelfTestOutcome& o : host::RunSelfTests()) {
                if (!o.passed) ++failed;
                if (*json) {
                    JsonWriter w;
                    w.Object()
                        .Key("id")
                        .String(o.id.Text())
                        .Key("kind")
                        .String(o.speed ? "speed" : "unit");
                    w.Key("passed").Bool(o.passed).Key("report").String(o.report);
                    if (!o.passed) w.Key("error").String(o.error);
                    std::cout << w.End().Text() << '\n';
                    continue;
                }
                std::cout << (o.passed ? "PASS " : "FAIL ") << o.id.Text()
                          << (o.speed ? " (speed test)" : "") << '\n';
                std::cout << o.report;
                if (!o.passed) std::cout << "  " << o.error << '\n';
            }
            return failed ? 1 : 0;
        });
    });
}

}  // namespace kelvo::cli
