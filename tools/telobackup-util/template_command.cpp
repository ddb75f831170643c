// template: fills "{{name}}" tags from a JSON object.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "cli.h"
#include "input.h"
#include "telobackup/json_text.h"
#include "telobackup/mustache.h"

namespace telocli {

namespace {

struct TemplateArgs {
    std::string templ;  // a file, or "-" for standard input
    std::string vars;   // JSON text, or @FILE, or @- for standard input
    bool jsonStrings = false;
    bool strict = false;
};

void run(const TemplateArgs &args, const Context &context) {
    if (args.templ == "-" && args.vars == "@-") {
        throw CommandError(kExitUsage, "template and --vars cannot both come from standard input");
    }
    Json::Value vars = readJsonObject(args.vars, "--vars");
    std::string templ = readInput(args.templ, "template " + args.templ);
    std::vector<std::string> missing;
    std::string filled = TELO::Backup::replaceMustache(templ, vars, args.jsonStrings, missing);
    if (args.strict && !missing.empty()) {
        throw CommandError(kExitNotFound,
                           "template " + args.templ + ": the tag {{" + missing.front() + "}} has no value");
    }
    if (context.json) {
        Json::Value out;
        out["text"] = filled;
        printJson(out);
    } else {
        writeOut(filled.data(), filled.size());
    }
}

}  // namespace

void addTemplateCommand(CLI::App &app, Context &context) {
    auto args = std::make_shared<TemplateArgs>();
    CLI::App *command = app.add_subcommand(
        "template", "Fill the {{name}} tags of a template with the members of a JSON object");
    command->add_option("TEMPLATE", args->templ, "Template file, or - for standard input")
        ->required();
    command->add_option("--vars", args->vars, "Variables: a JSON object, or @FILE, or @-")
        ->required();
    command->add_flag("--json-strings", args->jsonStrings,
                      "Insert string members as quoted JSON strings");
    command->add_flag("--strict", args->strict,
                      "Fail with exit status 1, naming the first tag that has no member, instead "
                      "of leaving such tags out");
    setExamples(command,
                "A tag without a member is left out (--strict fails instead). --json prints {\"text\":...}.",
                {{"telobackup-util template notify.tmpl --vars '{\"name\":\"nightly\"}'",
                  "fill notify.tmpl"},
                 {"telobackup-util config get tasks.conf task1 | telobackup-util template "
                  "notify.tmpl --vars @-",
                  "fill it from a task's section"}});
    command->callback([args, &context] { run(*args, context); });
}

}  // namespace telocli
