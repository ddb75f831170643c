// What is made from the command tree itself: the bash completion script, and a JSON description
// of every command and option against which the manual page is checked.
#include <CLI/CLI.hpp>
#include <map>
#include <sstream>

#include "cli.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"

namespace telocli {

namespace {

// How the completion completes a value, by the name of its option or positional argument.
// "words" values are the choices of the option's validator ({a,b} in its type name).
const std::map<std::string, std::string> &valueKinds() {
    static const auto *kinds = new std::map<std::string, std::string>{
        {"FILE", "file"},        {"TEMPLATE", "file"},    {"PATH", "file"},
        {"--from-file", "file"}, {"SECTION", "section"},  {"KEY", "key"},
        {"--secret", "key"},     {"VALUES", "assignment"}, {"--string", "assignment"},
        {"ID", "session"},       {"HOST", "host"},        {"--volume", "volume"},
        {"--lock", "lock"},      {"--vars", "at-file"},   {"--from-json", "at-file"},
        {"DUMP", "at-file"},     {"--rule", "words"},     {"--format", "words"},
    };
    return *kinds;
}

std::vector<const CLI::App *> commandsOf(const CLI::App &app) {
    return app.get_subcommands([](const CLI::App *) { return true; });
}

bool shown(const CLI::Option *option) {
    return !option->get_group().empty();
}

// The names an option is given by on the command line ("-0", "--null").
std::vector<std::string> namesOf(const CLI::Option *option) {
    std::vector<std::string> names;
    for (const std::string &name : option->get_snames()) names.push_back("-" + name);
    for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
    return names;
}

bool takesValue(const CLI::Option *option) {
    return option->get_expected_max() > 0;
}

// The choices of an option checked against a set: "a b" from a type name "TEXT:{a,b}".
std::string choicesOf(const CLI::Option *option) {
    std::string type = option->get_type_name();
    size_t open = type.find('{'), close = type.find('}');
    if (open == std::string::npos || close == std::string::npos || close < open) return "";
    std::string choices = type.substr(open + 1, close - open - 1);
    for (char &c : choices) {
        if (c == ',') c = ' ';
    }
    return choices;
}

std::string kindOf(const std::string &name) {
    auto found = valueKinds().find(name);
    return found == valueKinds().end() ? "none" : found->second;
}

// The path of every command (" config get") with the words that may follow it: its
// subcommands, its options, the options that take a value, and the kinds of its positional
// arguments in order, the last marked "+" when it repeats.
void completionCases(const CLI::App &app, const std::string &path, std::ostringstream &out) {
    std::string commands, options, valued, positionals;
    for (const CLI::App *command : commandsOf(app)) commands += command->get_name() + " ";
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_positional()) {
            positionals += kindOf(option->get_name());
            if (option->get_expected_max() > 1) positionals += "+";
            positionals += " ";
            continue;
        }
        if (!shown(option)) continue;
        for (const std::string &name : namesOf(option)) {
            options += name + " ";
            if (takesValue(option)) valued += name + " ";
        }
    }
    out << "        \"" << path << "\") commands=\"" << commands << "\" options=\"" << options
        << "\" valued=\"" << valued << "\" positionals=\"" << positionals << "\" ;;\n";
    for (const CLI::App *command : commandsOf(app)) {
        completionCases(*command, path + " " + command->get_name(), out);
    }
}

// Every option that takes a value, with how its value is completed: "--rule) kind=words
// words='a b' ;;".
void valueCases(const CLI::App &app, std::map<std::string, std::string> &cases) {
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_positional() || !shown(option) || !takesValue(option)) continue;
        for (const std::string &name : namesOf(option)) {
            std::string kind = kindOf(name);
            cases[name] = "kind=" + kind + (kind == "words" ? " words=\"" + choicesOf(option) + "\"" : "");
        }
    }
    for (const CLI::App *command : commandsOf(app)) valueCases(*command, cases);
}

void describeTree(const CLI::App &app, const std::string &path, Json::Value &out) {
    for (const CLI::App *command : commandsOf(app)) {
        std::string name = path.empty() ? command->get_name() : path + " " + command->get_name();
        Json::Value entry;
        entry["command"] = name;
        entry["options"] = Json::Value(Json::arrayValue);
        entry["arguments"] = Json::Value(Json::arrayValue);
        for (const CLI::Option *option : command->get_options()) {
            if (option->get_positional()) {
                entry["arguments"].append(option->get_name());
            } else if (shown(option)) {
                for (const std::string &flag : namesOf(option)) entry["options"].append(flag);
            }
        }
        out.append(entry);
        describeTree(*command, name, out);
    }
}

// The runtime part of the completion: it joins the pieces bash splits at "=", ":" and "@" back
// into the words as typed, walks them to the command and its positional arguments, and
// completes the current word by kind.
const char kCompletionBody[] = R"BASH(
# The program as typed, when it names one; else the one on PATH.
_telobackup_util_program() {
    local program=${COMP_WORDS[0]}
    [[ $program == "~/"* ]] && program=$HOME/${program:2}
    [[ $program == */* && -x $program ]] || program=telobackup-util
    printf '%s' "$program"
}

# A word as typed, with its quotes, backslashes and a leading ~/ undone.
_telobackup_util_unquote() {
    local word=$1
    case $word in
        \'*) word=${word#\'}; word=${word%\'} ;;
        \"*) word=${word#\"}; word=${word%\"} ;;
        *) word=${word//\\/} ;;
    esac
    [[ $word == "~/"* ]] && word=$HOME/${word:2}
    printf '%s' "$word"
}

# Files and directories starting with $1 (directories with a trailing /).
_telobackup_util_paths() {
    local path
    while IFS= read -r path; do
        [[ -d $path ]] && path+=/
        printf '%s\n' "$path"
    done < <(compgen -f -- "$1")
}

# Completes the value $2 of kind $1 as whole values (lines on standard output); $3 and $4 are the
# FILE and SECTION arguments already typed.
_telobackup_util_values() {
    local kind=$1 value=$2 file=$3 section=$4 entry
    case $kind in
        file) _telobackup_util_paths "$value" ;;
        at-file)
            if [[ $value == @* ]]; then
                _telobackup_util_paths "${value#@}" | sed 's/^/@/'
            else
                printf '@\n'
            fi ;;
        volume)
            if [[ $value == same:* ]]; then
                compgen -d -- "${value#same:}" | sed 's/^/same:/; s|$|/|'
            else
                printf '%s\n' max max-ext max-ext-btrfs same:
            fi ;;
        lock) for entry in "$TELO_COMPLETION_IPC/lock"/*; do [[ -e $entry ]] && printf '%s\n' "${entry##*/}"; done ;;
        session)
            for entry in "$TELO_COMPLETION_IPC/session"/sess.* "$TELO_COMPLETION_IPC/session"/seln.*; do
                [[ -e $entry || -L $entry ]] && printf '%s\n' "${entry##*/}"
            done ;;
        host) compgen -A hostname -- "$value" ;;
        section)
            [[ -n $file && $file != - ]] && "$(_telobackup_util_program)" config sections "$file" 2>/dev/null ;;
        key|assignment)
            [[ -n $file && $file != - && -n $section ]] &&
                "$(_telobackup_util_program)" config keys "$file" "$section" 2>/dev/null |
                if [[ $kind == assignment ]]; then sed 's/$/=/'; else cat; fi ;;
        words) printf '%s\n' $words ;;
    esac
}

_telobackup_util() {
    local cur=${COMP_WORDS[COMP_CWORD]} i=1 n token word path="" kind="" value option words
    local commands options valued positionals
    local -a tokens=() args=()
    while ((i <= COMP_CWORD)); do
        token=${COMP_WORDS[i]}
        while ((i < COMP_CWORD)) &&
            { [[ $token == @ || $token == *[=:] ]] || [[ ${COMP_WORDS[i + 1]} == [=:] ]]; }; do
            ((i++))
            token+=${COMP_WORDS[i]}
        done
        tokens+=("$token")
        ((i++))
    done
    _telobackup_util_describe ""
    n=${#tokens[@]}
    for ((i = 0; i < n - 1; i++)); do
        word=${tokens[i]}
        if [[ $word == -?* ]]; then
            [[ $word != *=* && " $valued " == *" $word "* ]] && ((i++))
            continue
        fi
        if ((${#args[@]} == 0)) && [[ " $commands " == *" $word "* ]]; then
            path+=" $word"
            _telobackup_util_describe "$path"
            continue
        fi
        args+=("$(_telobackup_util_unquote "$word")")
    done
    token=${tokens[n - 1]}
    value=$token
    option=""
    if [[ $token == --*=* ]]; then
        option=${token%%=*}
        value=${token#*=}
    elif ((n > 1)) && [[ ${tokens[n - 2]} == -?* && ${tokens[n - 2]} != *=* &&
                         " $valued " == *" ${tokens[n - 2]} "* ]]; then
        option=${tokens[n - 2]}
    fi
    if [[ -n $option ]]; then
        _telobackup_util_option "$option"
    elif [[ $token == -* ]]; then
        kind=options
    elif [[ -n $commands ]] && ((${#args[@]} == 0)); then
        kind=commands
    else
        local -a kinds=($positionals)
        i=${#args[@]}
        if ((i < ${#kinds[@]})); then
            kind=${kinds[i]}
        elif ((${#kinds[@]} > 0)) && [[ ${kinds[-1]} == *+ ]]; then
            kind=${kinds[-1]}
        fi
        kind=${kind%+}
    fi
    COMPREPLY=()
    local head=${token:0:${#token}-${#cur}} candidate
    case $kind in
        ""|none) return ;;
        options) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur"); return ;;
        commands) mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur"); return ;;
        file)
            if [[ -z $head && $value == "$cur" ]]; then
                # Bash quotes the names and marks directories itself.
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$(_telobackup_util_unquote "$cur")")
                return
            fi ;;
    esac
    local typed=$(_telobackup_util_unquote "$value")
    while IFS= read -r candidate; do
        [[ -n $candidate && $candidate == "$typed"* ]] || continue
        candidate=${candidate:${#value}-${#cur}}
        [[ $candidate == */ || $candidate == *[=:@] ]] && compopt -o nospace 2>/dev/null
        COMPREPLY+=("$(printf '%q' "$candidate")")
    done < <(_telobackup_util_values "$kind" "$typed" "${args[0]}" "${args[1]}")
    # A lone "@" or "same:" is to be continued.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *[@:] ]] && compopt -o nospace 2>/dev/null
    return 0
}
complete -F _telobackup_util telobackup-util
)BASH";

}  // namespace

std::string bashCompletion(const CLI::App &app) {
    std::ostringstream out;
    out << "# bash completion for telobackup-util (generated by telobackup-util "
           "--generate-bash-completion)\n"
           "TELO_COMPLETION_IPC="
        << TELO::Backup::Path::getIpcTempPath()
        << "\n\n# What may follow a command path: subcommands, options, options with a value, and "
           "the kinds of\n# its positional arguments.\n"
           "_telobackup_util_describe() {\n"
           "    case \"$1\" in\n";
    completionCases(app, "", out);
    out << "    esac\n}\n\n# How the value of an option is completed.\n"
           "_telobackup_util_option() {\n"
           "    case \"$1\" in\n";
    std::map<std::string, std::string> cases;
    valueCases(app, cases);
    for (const auto &kv : cases) out << "        " << kv.first << ") " << kv.second << " ;;\n";
    out << "        *) kind=none ;;\n    esac\n}\n" << kCompletionBody;
    return out.str();
}

std::string commandTree(const CLI::App &app) {
    Json::Value tree(Json::arrayValue);
    describeTree(app, "", tree);
    Json::Value global(Json::arrayValue);
    for (const CLI::Option *option : app.get_options()) {
        if (shown(option)) {
            for (const std::string &flag : namesOf(option)) global.append(flag);
        }
    }
    Json::Value out;
    out["options"] = global;
    out["commands"] = tree;
    return TELO::Backup::jsonToString(out) + "\n";
}

}  // namespace telocli
