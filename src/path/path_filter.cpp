#include "telobackup/path/path_filter.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "path/path_filter_private.h"

namespace TELO {
namespace Backup {

using internal::CompiledPattern;
using internal::MatchSubject;
using internal::readToken;
using internal::takesByte;
using internal::Token;
using internal::TokenKind;

namespace {

// The results of match(), named; the documented int values are kept.
enum class MatchResult : int {
    Match = 1,
    NoMatch = 0,
    PathEnded = -1,         // the path ran out before the pattern did
    StarCrossesSlash = -2,  // a single star would have to take a "/"
};

MatchResult matchFrom(const char *pattern, const char *path);

// A star (`run`: a run of stars) whose pattern goes on at `rest`, against `path`.
MatchResult matchStar(bool run, const char *rest, const char *path) {
    if (*rest == '\0') {
        if (run || strchr(path, '/') == nullptr) return MatchResult::Match;
        return MatchResult::NoMatch;
    }
    if (*path == '\0') return MatchResult::PathEnded;
    for (; *path != '\0'; ++path) {
        MatchResult result = matchFrom(rest, path);
        if (run) {
            if (result != MatchResult::NoMatch && result != MatchResult::StarCrossesSlash) {
                return result;
            }
        } else {
            if (result != MatchResult::NoMatch) return result;
            if (*path == '/') return MatchResult::StarCrossesSlash;
        }
    }
    return MatchResult::PathEnded;
}

MatchResult matchFrom(const char *pattern, const char *path) {
    for (;; ++path) {
        Token token = readToken(pattern);
        if (token.kind == TokenKind::End) {
            return *path == '\0' ? MatchResult::Match : MatchResult::NoMatch;
        }
        if (token.kind == TokenKind::Star || token.kind == TokenKind::StarRun) {
            return matchStar(token.kind == TokenKind::StarRun, pattern, path);
        }
        if (*path == '\0') return MatchResult::PathEnded;
        if (!takesByte(token, *path)) return MatchResult::NoMatch;
    }
}

// rebase() without recursion, in time polynomial in the lengths and in memory that grows with
// the number of single stars, not with stars times prefix bytes.
//
// A single star followed by more pattern, asked at a place of the prefix, takes the outcome of
// the first place from there on that decides (see run()), so that outcome holds for every
// place up to the deciding one. A star is only ever asked by the star before it, which tries
// places in increasing order and asks at a fixed distance from each; so each star's questions
// come in increasing order, one remembered answer per star saves every repeated try, and each
// star goes over the prefix at most once. An outcome's text is always "", "*", a tail of the
// pattern, or "/" and such a tail: it is kept as a kind and an offset.
class Rebaser {
  public:
    enum Kind : uint8_t { kEmpty, kTail, kSlashTail, kStar };
    struct Outcome {
        MatchResult code;  // Match, NoMatch or StarCrossesSlash
        Kind kind;
        size_t at;  // where the tail starts in the pattern
    };

    Rebaser(const char *pattern, const char *prefix) : pattern_(pattern), prefix_(prefix) {}

    // rebase() of the whole pattern against the whole prefix.
    Outcome run() {
        Step step = walk(0, 0);
        size_t depth = 0;  // stars_[0, depth) are each waiting for the outcome of a try
        for (;;) {
            Outcome outcome = step.outcome;
            if (!step.done && !answer(step.star, step.at, depth, outcome)) {
                if (stars_.size() == depth) stars_.emplace_back();
                stars_[depth++] = {step.star, step.at, step.at, step.at, {}, false};
                step = walk(after(step.star), step.at);
                continue;
            }
            // `outcome` is that of the innermost try; it may decide that star's answer, which is
            // then the outcome of the try of the star before it.
            for (; depth > 0; --depth) {
                StarState &s = stars_[depth - 1];
                bool cut = outcome.code == MatchResult::NoMatch && prefix_[s.trying] == '/';
                if (cut) outcome = kCut;
                if (!cut && (outcome.code == MatchResult::NoMatch ||
                             outcome.code == MatchResult::StarCrossesSlash)) {
                    if (prefix_[++s.trying] != '\0') break;
                    outcome = {MatchResult::Match, kTail, after(s.star)};
                }
                s.until = s.trying;
                s.answer = outcome;
                s.known = true;
            }
            if (depth == 0) return outcome;
            const StarState &s = stars_[depth - 1];
            step = walk(after(s.star), s.trying);
        }
    }

    std::string text(const Outcome &outcome) const {
        switch (outcome.kind) {
            case kEmpty:
                return std::string();
            case kTail:
                return std::string(pattern_ + outcome.at);
            case kSlashTail:
                return "/" + std::string(pattern_ + outcome.at);
            default:
                return "*";
        }
    }

  private:
    static constexpr Outcome kWhole = {MatchResult::Match, kEmpty, 0};  // both used up
    static constexpr Outcome kNoMatch = {MatchResult::NoMatch, kEmpty, 0};
    static constexpr Outcome kCut = {MatchResult::StarCrossesSlash, kEmpty, 0};

    // Where a walk along literals ends: an outcome, or a star to ask at a place of the prefix.
    struct Step {
        bool done;
        Outcome outcome;
        size_t star;
        size_t at;
    };

    // A single star followed by more pattern: its remembered answer, and the place it tries.
    struct StarState {
        size_t star;  // in the pattern
        size_t from;  // the answer holds for places [from, until]
        size_t until;
        size_t trying;
        Outcome answer;
        bool known;
    };

    // The pattern from `k` against the prefix from `i`, up to the first star.
    Step walk(size_t k, size_t i) const {
        for (;; ++i) {
            size_t at = k;
            Token token = read(k);
            if (token.kind == TokenKind::End) {
                return done(prefix_[i] == '\0' ? kWhole : kNoMatch);
            }
            if (token.kind == TokenKind::Star || token.kind == TokenKind::StarRun) {
                return {false, {}, at, i};
            }
            // The prefix ends inside the pattern: what follows applies below it when it starts
            // with an unescaped "/".
            if (prefix_[i] == '\0') {
                return done(pattern_[at] == '/' ? Outcome{MatchResult::Match, kTail, at}
                                                : kNoMatch);
            }
            if (!takesByte(token, prefix_[i])) return done(kNoMatch);
        }
    }

    // The token at `k`; moves `k` past it.
    Token read(size_t &k) const {
        const char *p = pattern_ + k;
        Token token = readToken(p);
        k = static_cast<size_t>(p - pattern_);
        return token;
    }

    // Where the pattern goes on after the star at `k`.
    size_t after(size_t k) const {
        read(k);
        return k;
    }

    static Step done(const Outcome &outcome) { return {true, outcome, 0, 0}; }

    // The star at `k` asked at place `i`, when that needs no trying: a run of stars, a single
    // star that ends the pattern, the end of the prefix, or a remembered answer of the star
    // (the `depth`th single star on the way).
    bool answer(size_t k, size_t i, size_t depth, Outcome &out) {
        size_t rest = k;
        if (read(rest).kind == TokenKind::StarRun) {
            // "/", the run's last two stars and what follows.
            out = {MatchResult::Match, kSlashTail, rest - 2};
            return true;
        }
        if (pattern_[rest] == '\0') {
            if (lastSlash_ == kUnknown) {
                const char *slash = strrchr(prefix_, '/');
                lastSlash_ = slash == nullptr ? kNone : static_cast<size_t>(slash - prefix_);
            }
            out = lastSlash_ != kNone && lastSlash_ >= i ? kNoMatch
                                                         : Outcome{MatchResult::Match, kStar, 0};
            return true;
        }
        if (prefix_[i] == '\0') {
            out = {MatchResult::Match, kTail, rest};
            return true;
        }
        if (depth < stars_.size()) {
            const StarState &s = stars_[depth];
            if (s.known && s.star == k && s.from <= i && i <= s.until) {
                out = s.answer;
                return true;
            }
        }
        return false;
    }

    static constexpr size_t kUnknown = static_cast<size_t>(-1);
    static constexpr size_t kNone = static_cast<size_t>(-2);

    const char *pattern_;
    const char *prefix_;
    size_t lastSlash_ = kUnknown;   // of the prefix, found on first need
    std::vector<StarState> stars_;  // by depth: the nth single star on the way
};

}  // namespace

int PathFilterPrivate::match(const char *pattern, const char *path) {
    return static_cast<int>(matchFrom(pattern, path));
}

int PathFilterPrivate::rebase(const char *pattern, const char *prefix, std::string &out) {
    Rebaser rebaser(pattern, prefix);
    Rebaser::Outcome outcome = rebaser.run();
    if (outcome.code == MatchResult::Match) out = rebaser.text(outcome);
    return static_cast<int>(outcome.code);
}

void PathFilterPrivate::rebaseList(const std::list<std::string> &patterns,
                                   std::list<std::string> &out, const std::string &prefix) {
    if (prefix.empty()) {
        out = patterns;
        return;
    }
    std::string rest;
    for (const std::string &pattern : patterns) {
        if (rebase(pattern.c_str(), prefix.c_str(), rest) != 1) continue;
        // Throws std::out_of_range for a prefix without "/".
        out.push_back(prefix.substr(prefix.rfind('/')) + rest);
    }
}

// ---- PatternList ------------------------------------------------------------------------------

namespace internal {

// Room for `more` patterns, both in the compiled list and in the candidate table; each grows to
// at least twice its size, so adding patterns one by one costs linear time overall. May throw;
// what it changes is invisible (capacity, words of zeros).
void PatternList::reserve(size_t more) {
    size_t count = compiled_.size() + more;
    if (compiled_.capacity() < count) {
        compiled_.reserve(std::max(count, 2 * compiled_.capacity()));
    }
    size_t needed = (count + 63) / 64;
    if (needed <= words_) return;
    size_t words = std::max(needed, 2 * words_);
    std::vector<uint64_t> table(256 * words, 0);
    for (size_t c = 0; c < 256; ++c) {
        for (size_t w = 0; w < words_; ++w) table[c * words + w] = byLastByte_[c * words_ + w];
    }
    byLastByte_.swap(table);
    words_ = words;
}

void PatternList::mark(size_t i, int lastByte) {
    for (size_t c = 0; c < 256; ++c) {
        if (lastByte < 0 || size_t(lastByte) == c)
            byLastByte_[c * words_ + i / 64] |= uint64_t(1) << (i % 64);
    }
}

// Everything that can throw happens before the first change, so a failed allocation leaves
// the list as it was.
void PatternList::add(const std::string &pattern) {
    CompiledPattern compiled(pattern.c_str());
    reserve(1);
    patterns_.push_back(pattern);
    compiled_.push_back(std::move(compiled));
    mark(compiled_.size() - 1, compiled_.back().lastByte());
}

void PatternList::merge(std::list<std::string> &more) {
    std::vector<CompiledPattern> incoming;
    incoming.reserve(more.size());
    for (const std::string &pattern : more) incoming.emplace_back(pattern.c_str());
    reserve(incoming.size());
    // The steps of std::list::merge, spelled out so that unsorted lists are merged the same
    // way instead of breaking its precondition.
    auto here = patterns_.begin();
    auto there = more.begin();
    while (here != patterns_.end() && there != more.end()) {
        if (*there < *here) {
            auto next = std::next(there);
            patterns_.splice(here, more, there);
            there = next;
        } else {
            ++here;
        }
    }
    patterns_.splice(patterns_.end(), more);
    for (CompiledPattern &pattern : incoming) {
        compiled_.push_back(std::move(pattern));
        mark(compiled_.size() - 1, compiled_.back().lastByte());
    }
}

void PatternList::clear() {
    patterns_.clear();
    compiled_.clear();
    byLastByte_.clear();
    words_ = 0;
}

bool PatternList::anyMatches(MatchSubject &subject) const {
    if (compiled_.empty()) return false;
    if (subject.size() == 0) {
        for (const CompiledPattern &pattern : compiled_) {
            if (pattern.matches(subject)) return true;
        }
        return false;
    }
    size_t last = static_cast<unsigned char>(subject.data()[subject.size() - 1]);
    const uint64_t *candidates = &byLastByte_[last * words_];
    for (size_t w = 0; w < words_; ++w) {
        for (uint64_t bits = candidates[w]; bits != 0; bits &= bits - 1) {
            if (compiled_[w * 64 + static_cast<size_t>(__builtin_ctzll(bits))].matches(subject)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace internal

// ---- PathFilter -------------------------------------------------------------------------------

PathFilter::PathFilter() : d_(new PathFilterPrivate) {}

PathFilter::~PathFilter() = default;

PathFilter::PathFilter(PathFilter &&other) noexcept = default;

PathFilter &PathFilter::operator=(PathFilter &&other) noexcept = default;

bool PathFilter::addIncludePattern(const std::string &pattern) {
    d_->include_.add(pattern);
    return true;
}

bool PathFilter::addPriorIncludePattern(const std::string &pattern) {
    d_->priorInclude_.add(pattern);
    return true;
}

bool PathFilter::addExcludePattern(const std::string &pattern) {
    d_->exclude_.add(pattern);
    return true;
}

bool PathFilter::addIncludePattern(std::list<std::string> &patterns) {
    d_->include_.merge(patterns);
    return true;
}

bool PathFilter::addPriorIncludePattern(std::list<std::string> &patterns) {
    d_->priorInclude_.merge(patterns);
    return true;
}

bool PathFilter::addExcludePattern(std::list<std::string> &patterns) {
    d_->exclude_.merge(patterns);
    return true;
}

bool PathFilter::filterOut(const std::string &path) const {
    MatchSubject subject(path.c_str(), strlen(path.c_str()));
    if (d_->priorInclude_.anyMatches(subject)) return false;
    if (d_->include_.anyMatches(subject)) return false;
    return d_->exclude_.anyMatches(subject);
}

bool PathFilter::filterOutIncludeException(const std::string &path) const {
    MatchSubject subject(path.c_str(), strlen(path.c_str()));
    if (d_->priorInclude_.anyMatches(subject)) return false;
    if (d_->exclude_.anyMatches(subject)) return true;
    if (d_->include_.empty()) return true;
    return !d_->include_.anyMatches(subject);
}

bool PathFilter::filterOut(const std::string &path) {
    return static_cast<const PathFilter *>(this)->filterOut(path);
}

bool PathFilter::filterOutIncludeException(const std::string &path) {
    return static_cast<const PathFilter *>(this)->filterOutIncludeException(path);
}

void PathFilter::clear() {
    d_->include_.clear();
    d_->exclude_.clear();
}

bool PathFilter::getIncludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->include_.patterns(), out, prefix);
    return true;
}

bool PathFilter::getPriorIncludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->priorInclude_.patterns(), out, prefix);
    return true;
}

bool PathFilter::getExcludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->exclude_.patterns(), out, prefix);
    return true;
}

}  // namespace Backup
}  // namespace TELO
