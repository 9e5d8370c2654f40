// kelvo preview serve: the live material editor (preview_server.h) until Ctrl-C.
#include <csignal>
#include <iostream>
#include <thread>

#include "cli_common.h"
#include "commands.h"
#include "preview_server.h"

namespace kelvo::cli {
namespace {

std::atomic<bool> g_stop{false};
extern "C" void OnServeStopSignal(int /*signal*/) { g_stop.store(true); }

// "HOST:PORT" (an IPv4 address or localhost; port 0 picks a free one).
Result<void> ReadListen(const std::string& text, ServeOptions& o) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return IllegalArgumentError(KELVO_HERE, "--listen expects HOST:PORT, not '@'.", text);
    KELVO_ASSIGN_OR_RETURN(
        int64_t port, ReadInteger(nlohmann::json::parse(text.substr(colon + 1), nullptr, false),
                                  "--listen's port", 0, 65535));
    o.host = text.substr(0, colon);
    o.port = int(port);
    return OK();
}

struct ServeCommandOptions {
    std::string listen = "127.0.0.1:8080";
    std::string root;
    int64_t clients = 32;
};

Result<void> Serve(Context& context, const ServeCommandOptions& c) {
    ServeOptions o;
    KELVO_TRY(ReadListen(c.listen, o));
    if (c.clients < 1 || c.clients > 256)
        return IllegalArgumentError(KELVO_HERE, "--clients must be an integer from 1 to 256.");
    o.maxClients = size_t(c.clients);
    o.root = c.root;
    o.pageFolder = context.resourceFolder / "serve";
    KELVO_ASSIGN_OR_RETURN(auto server, PreviewServer::Create(o));
    KELVO_ASSIGN_OR_RETURN(int port, server->Start());

    // A tab closed mid-write must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    g_stop.store(false);
    auto previousInt = std::signal(SIGINT, OnServeStopSignal);
    auto previousTerm = std::signal(SIGTERM, OnServeStopSignal);
    std::cout << "kelvo: serving the material editor on http://" << o.host << ':' << port << "/"
              << (c.root.empty() ? std::string(" (no --root: no textures or IES profiles)")
                                 : " (files from " + c.root + ")")
              << std::endl;
    if (!std::cout) return IllegalStateError(KELVO_HERE, "Cannot write to stdout.");
    while (!g_stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    server->Stop();
    std::signal(SIGINT, previousInt);
    std::signal(SIGTERM, previousTerm);
    const ServeStatistics s = server->Statistics();
    std::cerr << "kelvo: stopped; " << s.submitted << " requests (" << s.completed << " completed, "
              << s.released << " released, " << s.failed << " failed)\n";
    return OK();
}

}  // namespace

void AddPreviewServeCommand(CLI::App& preview, Context& context, int& status) {
    auto o = std::make_shared<ServeCommandOptions>();
    auto* cmd = preview.add_subcommand(
        "serve", "Serve a live material editor to the browser (until Ctrl-C)");
    cmd->add_option("--listen", o->listen,
                    "HOST:PORT to listen on (port 0: any free one); keep 127.0.0.1 unless the "
                    "network is trusted")
        ->capture_default_str();
    cmd->add_option("--root", o->root,
                    "Folder whose textures and IES profiles the page may use (nothing else is "
                    "read)");
    cmd->add_option("--clients", o->clients, "Browser tabs served at once")->capture_default_str();
    cmd->callback([&context, &status, o] {
        RunCommand(context, status, [&] { return Serve(context, *o); });
    });
}

}  // namespace kelvo::cli
