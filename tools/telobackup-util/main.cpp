// telobackup-util: the library's services for shell scripts, request handlers in other
// languages, and administrators.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "telo/platform.h"
#include "telobackup/json_text.h"

// Only the generic platform explains its failures in words; the vendor libraries lack the call.
extern "C" const char *TLIBCErrorGetDetail(void) __attribute__((weak));

#ifndef TELOBACKUP_VERSION
#define TELOBACKUP_VERSION "unknown"
#endif

namespace telocli {

const char *exitCodeTable() {
    return "Exit status:\n"
           "  0  success\n"
           "  1  not found (file, section, key, share, session, volume)\n"
           "  2  usage error (unknown option, bad JSON, bad name)\n"
           "  3  invalid file (exists but cannot be read as expected)\n"
           "  4  cannot write (a file could not be created or rewritten)\n"
           "  5  lock not obtained\n"
           "  6  unreachable (no address of the host accepted a connection)\n"
           "  7  other failure\n";
}

void printJson(const Json::Value &value) {
    std::cout << TELO::Backup::jsonToString(value) << '\n';
}

void printLine(const std::string &text) {
    std::cout << text << '\n';
}

CommandError systemError(int code, const std::string &what) {
    return CommandError(code, what + ": " + strerror(errno));
}

std::string platformFailure() {
    int error = errno;
    const char *detail = TLIBCErrorGetDetail != nullptr ? TLIBCErrorGetDetail() : "";
    char triple[64];
    snprintf(triple, sizeof(triple), " [0x%04X %s:%d]", TLIBCErrGet(), TLIBCErrorGetFile(),
             TLIBCErrorGetLine());
    return (*detail != '\0' ? std::string(detail) : std::string(strerror(error))) + triple;
}

}  // namespace telocli

int main(int argc, char **argv) {
    using namespace telocli;
    CLI::App app(
        "Utilities of the backup application's library: section configuration files "
        "with encrypted secrets and identifiers, path filters, templates, connectivity "
        "probes, shares, volumes, temporaries, sessions and the application log.",
        "telobackup-util");
    app.footer(exitCodeTable());
    app.set_version_flag("--version", "telobackup-util " TELOBACKUP_VERSION);
    app.require_subcommand(1);
    Context context;
    app.add_flag("--json", context.json, "Machine-readable output (JSON) where it makes sense");
    bool man = false, completion = false;
    app.add_flag("--generate-man", man)->group("");
    app.add_flag("--generate-bash-completion", completion)->group("");

    addConfigCommand(app, context);
    addFilterCommand(app, context);
    addTemplateCommand(app, context);
    addProbeCommand(app, context);
    addShareCommand(app, context);
    addVolumesCommand(app, context);
    addTempCommands(app, context);
    addLogCommand(app, context);

    // The generators need the tree but no subcommand.
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--generate-man") == 0) {
            std::cout << manPage(app);
            return kExitOk;
        }
        if (strcmp(argv[i], "--generate-bash-completion") == 0) {
            std::cout << bashCompletion(app);
            return kExitOk;
        }
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::cerr << "telobackup-util: " << e.what() << "\n"
                  << "Run with --help for usage.\n";
        return kExitUsage;
    } catch (const CommandError &e) {
        std::cout.flush();
        std::cerr << "telobackup-util: " << e.what() << "\n";
        return e.code();
    } catch (const std::exception &e) {
        std::cerr << "telobackup-util: " << e.what() << "\n";
        return kExitFailed;
    }
    std::cout.flush();
    return std::cout ? kExitOk : kExitFailed;
}
