// template: fills "{{name}}" tags from a JSON object.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "cli.h"
#include "telobackup/json_text.h"
#include "telobackup/mustache.h"

namespace telocli {

namespace {

struct TemplateArgs {
    std::string templ;  // a file, or "-" for standard input
    std::string vars;   // JSON text, or @FILE, or @- for standard input
    bool jsonStrings = false;
};

std::string readAll(const std::string &path, const char *what) {
    if (path == "-") {
        std::ostringstream text;
        errno = 0;
        text << std::cin.rdbuf();
        if (ferror(stdin)) {
            if (errno == 0) errno = EIO;
            throw systemError(kExitInvalidFile, std::string(what) + " from standard input");
        }
        return text.str();
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) throw systemError(errno == ENOENT ? kExitNotFound : kExitInvalidFile, path);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw systemError(kExitInvalidFile, std::string(what) + " " + path);
    return text.str();
}

void run(const TemplateArgs &args) {
    if (args.templ == "-" && args.vars == "@-") {
        throw CommandError(kExitUsage, "template and --vars cannot both come from standard input");
    }
    std::string varsText = args.vars;
    std::string varsSource = "--vars";
    if (!varsText.empty() && varsText[0] == '@') {
        varsSource = varsText.substr(1);
        varsText = readAll(varsSource, "variables");
    }
    Json::Value vars;
    if (!TELO::Backup::jsonFromString(vars, varsText) || !vars.isObject()) {
        throw CommandError(kExitUsage, varsSource + ": variables must be one JSON object");
    }
    std::string templ = readAll(args.templ, "template");
    std::string filled = TELO::Backup::replaceMustache(templ, vars, args.jsonStrings);
    writeOut(filled.data(), filled.size());
}

}  // namespace

void addTemplateCommand(CLI::App &app, Context &) {
    auto args = std::make_shared<TemplateArgs>();
    CLI::App *command = app.add_subcommand(
        "template", "Fill the {{name}} tags of a template with the members of a JSON object");
    command->add_option("TEMPLATE", args->templ, "Template file, or - for standard input")
        ->required();
    command->add_option("--vars", args->vars, "Variables: a JSON object, or @FILE, or @-")
        ->required();
    command->add_flag("--json-strings", args->jsonStrings,
                      "Insert string members as quoted JSON strings");
    command->callback([args] { run(*args); });
}

}  // namespace telocli
