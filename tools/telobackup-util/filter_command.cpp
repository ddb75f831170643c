// filter: include/exclude decisions for paths from the command line or standard input.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>

#include "cli.h"
#include "fd_io.h"
#include "pattern_file.h"
#include "telobackup/path/path_filter.h"

namespace telocli {

namespace {

struct FilterArgs {
    std::vector<std::string> includes, priorIncludes, excludes, paths;
    std::string fromFile;
    std::string rule = "include-wins";
    bool printExcluded = false;
    bool nulSeparated = false;
    bool quiet = false;
};

constexpr size_t kMaxPatternFile = 64 << 20;

// True when `pattern` can match a path that begins with "/": past the single stars it may begin
// with (each may match nothing), it begins with "/" (or "\/") or with "**".
bool canMatchAbsolutePath(const std::string &pattern) {
    size_t i = 0;
    while (i < pattern.size() && pattern[i] == '*') {
        if (i + 1 < pattern.size() && pattern[i + 1] == '*') return true;
        ++i;
    }
    if (i < pattern.size() && pattern[i] == '/') return true;
    return pattern.compare(i, 2, "\\/") == 0;
}

// Other tools match "*.tmp" in every directory; here it never matches an absolute path. Says so
// once for each such pattern.
class PatternWarnings {
  public:
    explicit PatternWarnings(bool quiet) : quiet_(quiet) {}

    void check(const std::string &pattern) {
        if (quiet_ || canMatchAbsolutePath(pattern) || !warned_.insert(pattern).second) return;
        bool slash = pattern.find('/') != std::string::npos;
        printNotice("`" + pattern + "` matches only paths " +
                    (slash ? "that do not begin with a slash" : "without a slash") +
                    "; for every directory write `/**/" + pattern + "`");
    }

  private:
    bool quiet_;
    std::set<std::string> warned_;
};

// Adds the patterns of a pattern file (see pattern_file.h); a pipe is read as well as a file.
void addPatternFile(const std::string &path, TELO::Backup::PathFilter &filter,
                    PatternWarnings &warnings) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw systemError(errno == ENOENT ? kExitNotFound : kExitInvalidFile, path);
    std::string text;
    char chunk[1 << 16];
    while (in.read(chunk, sizeof(chunk)) || in.gcount() > 0) {
        text.append(chunk, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxPatternFile) {
            throw CommandError(kExitInvalidFile, path + ": larger than 64 MiB");
        }
    }
    if (in.bad()) throw systemError(kExitInvalidFile, path);
    std::vector<PatternEntry> entries;
    size_t line = 0;
    std::string error;
    if (!parsePatterns(text, entries, line, error)) {
        throw CommandError(kExitInvalidFile, path + ":" + std::to_string(line) + ": " + error);
    }
    for (const PatternEntry &entry : entries) {
        warnings.check(entry.pattern);
        switch (entry.kind) {
            case PatternEntry::kPrior:
                filter.addPriorIncludePattern(entry.pattern);
                break;
            case PatternEntry::kInclude:
                filter.addIncludePattern(entry.pattern);
                break;
            case PatternEntry::kExclude:
                filter.addExcludePattern(entry.pattern);
                break;
        }
    }
}

class Decider {
  public:
    Decider(TELO::Backup::PathFilter &filter, const FilterArgs &args, const Context &context)
        : filter_(filter),
          includeWins_(args.rule == "include-wins"),
          printExcluded_(args.printExcluded),
          json_(context.json),
          end_(args.nulSeparated ? '\0' : '\n') {}

    void decide(const std::string &path) {
        bool excluded =
            includeWins_ ? filter_.filterOut(path) : filter_.filterOutIncludeException(path);
        if (json_) {
            Json::Value row;
            row["path"] = path;
            row["kept"] = !excluded;
            std::string text = jsonText(row);
            text += '\n';
            writeOut(text.data(), text.size());
        } else if (excluded == printExcluded_) {
            writeOut(path.data(), path.size());
            writeOut(&end_, 1);
        }
    }

  private:
    TELO::Backup::PathFilter &filter_;
    bool includeWins_, printExcluded_, json_;
    char end_;
};

// Decides for every line (or NUL-terminated record) of standard input, streaming.
void decideStandardInput(Decider &decider, char separator) {
    std::vector<char> buffer(1 << 18);
    std::string path;
    size_t used = 0;
    for (;;) {
        ssize_t n = readRetrying(0, buffer.data() + used, buffer.size() - used);
        if (n < 0) throw systemError(kExitFailed, "standard input");
        const char *start = buffer.data();
        const char *end = buffer.data() + used + static_cast<size_t>(n);
        const char *scan = buffer.data() + used;
        while (const char *stop = static_cast<const char *>(
                   memchr(scan, separator, static_cast<size_t>(end - scan)))) {
            path.assign(start, static_cast<size_t>(stop - start));
            decider.decide(path);
            start = scan = stop + 1;
        }
        // Keep the unfinished line; grow the buffer for a line longer than it.
        used = static_cast<size_t>(end - start);
        memmove(buffer.data(), start, used);
        if (n == 0) break;
        if (used == buffer.size()) buffer.resize(buffer.size() * 2);
    }
    if (used > 0) {
        path.assign(buffer.data(), used);
        decider.decide(path);
    }
}

void run(const FilterArgs &args, const Context &context) {
    TELO::Backup::PathFilter filter;
    PatternWarnings warnings(args.quiet);
    for (const auto *list : {&args.priorIncludes, &args.includes, &args.excludes}) {
        for (const std::string &p : *list) warnings.check(p);
    }
    for (const std::string &p : args.priorIncludes) filter.addPriorIncludePattern(p);
    for (const std::string &p : args.includes) filter.addIncludePattern(p);
    for (const std::string &p : args.excludes) filter.addExcludePattern(p);
    if (!args.fromFile.empty()) addPatternFile(args.fromFile, filter, warnings);
    Decider decider(filter, args, context);
    if (args.paths.empty()) {
        decideStandardInput(decider, args.nulSeparated ? '\0' : '\n');
    } else {
        for (const std::string &path : args.paths) decider.decide(path);
    }
}

}  // namespace

void addFilterCommand(CLI::App &app, Context &context) {
    auto args = std::make_shared<FilterArgs>();
    CLI::App *command = app.add_subcommand(
        "filter",
        "Decide which paths a backup keeps: prints the kept paths of the arguments, or "
        "of standard input (one per line), as they stream in");
    command->add_option("--include", args->includes, "Include pattern (repeatable)")
        ->allow_extra_args(false);
    command
        ->add_option("--prior-include", args->priorIncludes,
                     "Prior include pattern: wins under both rules (repeatable)")
        ->allow_extra_args(false);
    command->add_option("--exclude", args->excludes, "Exclude pattern (repeatable)")
        ->allow_extra_args(false);
    command->add_option("--from-file", args->fromFile,
                        "Patterns from a file of KIND<TAB>PATTERN lines (prior, include, exclude)");
    command
        ->add_option("--rule", args->rule,
                     "include-wins: includes are exceptions to the excludes (the default); "
                     "exclude-wins: excludes win and only included paths are kept")
        ->check(CLI::IsMember({"include-wins", "exclude-wins"}));
    command->add_flag("--print-excluded", args->printExcluded,
                      "Print the excluded paths instead of the kept ones");
    command->add_flag("-0,--null", args->nulSeparated,
                      "Paths are NUL-terminated on input and output");
    command->add_flag("--quiet", args->quiet,
                      "No warning for a pattern that cannot match an absolute path");
    command->add_option("PATH", args->paths, "Paths to decide (default: standard input)");
    setExamples(
        command,
        "Patterns: ? is any byte but /, * any run without /, ** (two or more stars) any run with "
        "/, \\ makes the next byte literal; a pattern matches the whole path, so write "
        "/**/*.tmp rather than *.tmp (a pattern that cannot match an absolute path is warned "
        "about). --json prints {\"path\":...,\"kept\":...} for every path.",
        {{"find /srv/photos | telobackup-util filter --exclude '/**/*.tmp'",
          "the paths a backup of /srv/photos keeps"},
         {"telobackup-util filter --exclude '/srv/video/**' --include '/srv/video/Family/**' "
          "/srv/video/Family/a.mkv",
          "an include is an exception to the excludes"},
         {"find /srv -print0 | telobackup-util filter -0 --from-file rules.tsv --print-excluded",
          "what the rules leave out, NUL-separated"}});
    command->callback([args, &context] { run(*args, context); });
}

}  // namespace telocli
