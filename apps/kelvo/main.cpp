// kelvo: inspect, evaluate and render with the render module from a terminal.
#include <iostream>

#include "cli_common.h"
#include "commands.h"

int main(int argc, char** argv) {
    using namespace kelvo::cli;
    Context context;
    int status = 0;
    CLI::App app{"kelvo: inspect, evaluate and render with the kelvo render module.", "kelvo"};
    app.require_subcommand(1);
    app.add_option("--set", context.settings,
                   "Set a configuration variable for this run (NAME=VALUE); repeatable")
        ->type_name("NAME=VALUE");
    app.set_help_all_flag("--help-all", "Explain every command and its options");

    AddModulesCommand(app, context, status);
    AddConfigCommand(app, context, status);
    AddDemoCommand(app, context, status);
    AddImageCommand(app, context, status);
    AddCameraCommand(app, context, status);
    AddBsdfCommand(app, context, status);
    AddSelfTestCommand(app, context, status);
    AddIesCommand(app, context, status);
    AddIntersectCommand(app, context, status);
    AddTextureCommand(app, context, status);
    AddPreviewCommand(app, context, status);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        status = app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        status = app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (kelvo::Error unknown = UnknownCommandError(app)) return Fail(unknown);
        return Fail(UnexpectedError(KELVO_HERE, "@", e.what()));
    }
    // Help, too, is output: a full disk or /dev/full must not pass for success.
    if (!std::cout.flush() && status == 0)
        return Fail(IoError(KELVO_HERE, "", "Cannot write to standard output."));
    return status;
}
