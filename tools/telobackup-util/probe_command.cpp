// probe: the first address of a host that accepts a TCP connection on a port.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>

#include "cli.h"
#include "telobackup/network/network.h"

namespace telocli {

namespace {

using TELO::Backup::Net;

struct ProbeArgs {
    std::string host;
    int port = 0;
    int timeout = 10;
    int total = -1;
};

// On a terminal, once the probe has taken a second, names each address as its try begins, so a
// slow probe is not a silent one.
class ProbeProgress {
  public:
    explicit ProbeProgress(bool enabled) {
        if (enabled) thread_ = std::thread([this] { announce(); });
    }

    ~ProbeProgress() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

    void trying(const std::string &address) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            current_ = address;
            ++tries_;
        }
        changed_.notify_all();
    }

  private:
    void announce() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_until(lock, start_ + std::chrono::seconds(1), [this] { return done_; })) {
            return;
        }
        int announced = 0;
        while (!done_) {
            if (tries_ != announced) {
                announced = tries_;
                printNotice("trying " + current_ + "\u2026");
            }
            changed_.wait(lock, [&] { return done_ || tries_ != announced; });
        }
    }

    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string current_;
    int tries_ = 0;
    bool done_ = false;
    std::thread thread_;
};

struct Try {
    std::string address;
    int result;
    int error;
};

// "connection refused", "timed out" or the failure's own words.
std::string outcomeOf(const Try &t) {
    if (t.result == -2) return "timed out (no answer in time)";
    if (t.error == ECONNREFUSED) return "connection refused";
    return t.error != 0 ? strerror(t.error) : "failed (see the system log)";
}

const char *resultName(const Try &t) {
    if (t.result == 0) return "connected";
    if (t.result == -2) return "timeout";
    return t.error == ECONNREFUSED ? "refused" : "failed";
}

void run(const ProbeArgs &args, const Context &context) {
    std::vector<Try> tries;
    std::string ip;
    int result;
    {
        ProbeProgress progress(isatty(2) == 1);
        Net::ProbeObserver observer;
        observer.trying = [&progress](const std::string &address) { progress.trying(address); };
        observer.tried = [&tries](const std::string &address, int outcome, int error) {
            tries.push_back(Try{address, outcome, error});
        };
        // Without --total every address gets the whole --timeout: the library's own budget
        // would stretch a short timeout to 15 s a try.
        int total = args.total >= 0 ? args.total : std::numeric_limits<int>::max();
        result = Net::getAvailableIp(args.host, args.port, args.timeout, total, ip, observer);
    }
    if (context.json) {
        Json::Value out;
        out["host"] = args.host;
        out["port"] = args.port;
        out["result"] = result;
        out["ip"] = result == 0 ? Json::Value(ip) : Json::Value();
        out["tries"] = Json::Value(Json::arrayValue);
        for (const Try &t : tries) {
            Json::Value entry;
            entry["address"] = t.address;
            entry["outcome"] = resultName(t);
            out["tries"].append(entry);
        }
        printJson(out);
    } else if (result == 0) {
        printLine(ip);
    }
    std::string target = args.host + ":" + std::to_string(args.port);
    switch (result) {
        case 0:
            return;
        case -3:
            throw CommandError(kExitNotFound, args.host + ": cannot resolve");
        case -4:
            throw CommandError(kExitFailed, "the monotonic clock cannot be read");
        default:
            break;
    }
    std::string why;
    if (tries.size() == 1 && tries[0].address == args.host) {
        why = outcomeOf(tries[0]);
    } else {
        for (const Try &t : tries) why += (why.empty() ? "" : ", ") + t.address + " " + outcomeOf(t);
    }
    throw CommandError(kExitUnreachable, target + ": " + (why.empty() ? "unreachable" : why));
}

}  // namespace

void addProbeCommand(CLI::App &app, Context &context) {
    auto args = std::make_shared<ProbeArgs>();
    CLI::App *command = app.add_subcommand(
        "probe",
        "Print the first address of HOST (IPv4 first) that accepts a TCP connection on "
        "PORT; on a terminal each address is named as it is tried once a second has passed");
    command->add_option("HOST", args->host, "Host name or IP address")->required();
    command->add_option("PORT", args->port, "TCP port")->required()->check(CLI::Range(0, 65535));
    command->add_option("--timeout", args->timeout, "Seconds per address (default 10)")
        ->check(CLI::NonNegativeNumber);
    command
        ->add_option("--total", args->total,
                     "Seconds for all addresses: no other address is tried once they are past "
                     "(default: --timeout for each address)")
        ->check(CLI::NonNegativeNumber);
    setExamples(command,
                "A refused connection and one that timed out both end with exit status 6; the "
                "message tells which.",
                {{"telobackup-util probe backup.example.org 873 --timeout 5",
                  "the address to use for an rsync target"},
                 {"telobackup-util --json probe 192.0.2.7 22",
                  "each try and its outcome as JSON"}});
    command->callback([args, &context] { run(*args, context); });
}

}  // namespace telocli
