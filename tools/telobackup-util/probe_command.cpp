// probe: the first address of a host that accepts a TCP connection on a port.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "cli.h"
#include "telobackup/network/network.h"

namespace telocli {

namespace {

struct ProbeArgs {
    std::string host;
    int port = 0;
    int timeout = 10;
    int total = -1;
};

void run(const ProbeArgs &args, const Context &context) {
    std::string ip;
    int result =
        TELO::Backup::Net::getAvailableIp(args.host, args.port, args.timeout, args.total, ip);
    std::string reason = strerror(errno);  // the last try's reason, before output changes errno
    if (context.json) {
        Json::Value out;
        out["host"] = args.host;
        out["port"] = args.port;
        out["result"] = result;
        out["ip"] = result == 0 ? Json::Value(ip) : Json::Value();
        printJson(out);
    } else if (result == 0) {
        printLine(ip);
    }
    std::string target = args.host + ":" + std::to_string(args.port);
    switch (result) {
        case 0:
            return;
        case -2:
            throw CommandError(kExitUnreachable, target + ": no answer in time");
        case -3:
            throw CommandError(kExitNotFound, args.host + ": cannot resolve");
        case -4:
            throw CommandError(kExitFailed, "the monotonic clock cannot be read");
        default:
            throw CommandError(kExitUnreachable, target + ": refused or failed: " + reason);
    }
}

}  // namespace

void addProbeCommand(CLI::App &app, Context &context) {
    auto args = std::make_shared<ProbeArgs>();
    CLI::App *command = app.add_subcommand(
        "probe",
        "Print the first address of HOST (IPv4 first) that accepts a TCP connection on "
        "PORT");
    command->add_option("HOST", args->host, "Host name or IP address")->required();
    command->add_option("PORT", args->port, "TCP port")->required()->check(CLI::Range(0, 65535));
    command->add_option("--timeout", args->timeout, "Seconds per address (default 10)")
        ->check(CLI::NonNegativeNumber);
    command
        ->add_option("--total", args->total,
                     "Seconds for all addresses (default: derived, at least 15 per address)")
        ->check(CLI::NonNegativeNumber);
    command->callback([args, &context] { run(*args, context); });
}

}  // namespace telocli
