// telobackup-util: the library's services for shell scripts, request handlers in other
// languages, and administrators.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
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
           "  0  success (--dry-run: nothing would change)\n"
           "  1  not found (file, section, key, share, session, volume, a tag under\n"
           "     template --strict); --dry-run: something would change\n"
           "  2  usage error (unknown option, bad JSON, bad name)\n"
           "  3  invalid file (exists but cannot be read as expected, or a rewrite would lose\n"
           "     lines of it)\n"
           "  4  cannot write (a file could not be created or rewritten, or standard output\n"
           "     failed)\n"
           "  5  lock not obtained\n"
           "  6  unreachable (no address of the host accepted a connection)\n"
           "  7  other failure\n";
}

void setExamples(CLI::App *command, const std::string &text,
                 std::initializer_list<std::pair<const char *, const char *>> examples) {
    std::string footer = text;
    if (!footer.empty() && footer.back() != '\n') footer += '\n';
    footer += (footer.empty() ? "" : "\n") + std::string("Examples:\n");
    for (const auto &example : examples) {
        footer += std::string("  $ ") + example.first + "\n      " + example.second + "\n";
    }
    command->footer(footer);
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

namespace {

// The usage error for a word where a subcommand must stand that names none, or "" when the
// command line names only known subcommands. Options of commands with subcommands are flags
// only, so every other word there is a subcommand.
std::string unknownSubcommand(const CLI::App &app, int argc, char **argv) {
    const CLI::App *command = &app;
    std::string path;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--") break;
        if (word.empty() || word[0] == '-') continue;
        auto all = command->get_subcommands([](const CLI::App *) { return true; });
        if (all.empty()) break;
        auto named = command->get_subcommands(
            [&word](const CLI::App *sub) { return sub->check_name(word); });
        if (named.empty()) {
            std::string known;
            for (size_t n = 0; n < all.size(); ++n) {
                known += (n == 0 ? "" : n + 1 == all.size() ? " or " : ", ") + all[n]->get_name();
            }
            return "unknown " + path + "command '" + word + "' (expected " + known + ")";
        }
        command = named.front();
        path += word + " ";
    }
    return std::string();
}

// Writes what the commands left buffered and what went through std::cout (help, version,
// generated files); a failure is reported on standard error and turns success into exit 4.
// Only the first call does anything.
int finishOutput(int code) {
    static bool finished = false;
    if (finished) return code;
    finished = true;
    try {
        flushOut();
    } catch (const CommandError &e) {
        printError(e.what(), e.code());
        if (code == kExitOk) code = e.code();
    }
    errno = 0;
    std::cout.flush();
    if (fflush(stdout) != 0 || ferror(stdout) || !std::cout) {
        printError(std::string("standard output: ") + (errno != 0 ? strerror(errno) : "write error"),
                   kExitCannotWrite);
        if (code == kExitOk) code = kExitCannotWrite;
    }
    return code;
}

// Takes every --json out of the words before "--", so that it may stand after a subcommand as
// well as before it; true when there was one.
bool takeJsonFlag(std::vector<char *> &words) {
    bool json = false;
    for (size_t i = 1; i < words.size() && strcmp(words[i], "--") != 0;) {
        if (strcmp(words[i], "--json") == 0) {
            json = true;
            words.erase(words.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            ++i;
        }
    }
    return json;
}

int run(int argc, char **argv) {
    CLI::App app(
        "Utilities of the backup application's library: section configuration files "
        "with encrypted secrets and identifiers, path filters, templates, connectivity "
        "probes, shares, volumes, temporaries, sessions and the application log.",
        "telobackup-util");
    setExamples(&app, exitCodeTable(),
                {{"telobackup-util config get tasks.conf task1", "print a section as JSON"},
                 {"find /srv | telobackup-util filter --exclude '/**/*.tmp'",
                  "the paths a backup keeps"},
                 {"telobackup-util config get tasks.conf task1 --json", "errors as JSON too"}});
    app.set_version_flag("--version", "telobackup-util " TELOBACKUP_VERSION);
    app.require_subcommand(1);
    Context context;
    std::vector<char *> words(argv, argv + argc);
    context.json = takeJsonFlag(words);
    setJsonDiagnostics(context.json);
    bool jsonFlag = false;  // only for --help: the words were taken out above
    app.add_flag("--json", jsonFlag,
                 "Machine-readable output (JSON), before or after the command: one JSON text per "
                 "line, bytes that are not valid UTF-8 written as \\u00XX of the byte; errors "
                 "and notices on standard error as {\"error\":...,\"exit\":N} and "
                 "{\"notice\":...}");
    bool completion = false, tree = false;
    app.add_flag("--generate-bash-completion", completion)->group("");
    app.add_flag("--generate-tree", tree)->group("");

    addConfigCommand(app, context);
    addFilterCommand(app, context);
    addTemplateCommand(app, context);
    addProbeCommand(app, context);
    addShareCommand(app, context);
    addVolumesCommand(app, context);
    addTempCommands(app, context);
    addLogCommand(app, context);

    // The generators need the tree but no subcommand.
    for (size_t i = 1; i < words.size(); ++i) {
        if (strcmp(words[i], "--generate-bash-completion") == 0) {
            std::cout << bashCompletion(app);
            return kExitOk;
        }
        if (strcmp(words[i], "--generate-tree") == 0) {
            std::cout << commandTree(app);
            return kExitOk;
        }
    }

    try {
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::string unknown = unknownSubcommand(app, static_cast<int>(words.size()), words.data());
        std::string message = unknown.empty() ? std::string(e.what()) : unknown;
        printError(message, kExitUsage);
        if (!context.json) std::cerr << "Run with --help for usage.\n";
        return kExitUsage;
    } catch (const CommandError &e) {
        // What the command printed before it failed goes out first.
        int code = finishOutput(e.code());
        printError(e.what(), e.code(), e.details());
        return code;
    } catch (const std::exception &e) {
        finishOutput(kExitFailed);
        printError(e.what(), kExitFailed);
        return kExitFailed;
    }
    return context.exitCode;
}

}  // namespace

}  // namespace telocli

int main(int argc, char **argv) {
    // A reader that goes away makes writes fail with EPIPE, reported like any other failure,
    // instead of killing the tool without a word.
    signal(SIGPIPE, SIG_IGN);
    return telocli::finishOutput(telocli::run(argc, argv));
}
