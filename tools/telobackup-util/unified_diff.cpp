#include "unified_diff.h"

#include <algorithm>
#include <vector>

namespace telocli {

namespace {

enum class Op { kEqual, kDelete, kInsert };

struct Edit {
    Op op;
    size_t line;  // index into the old lines (equal, delete) or the new lines (insert)
};

// Lines with their "\n"; the last one may lack it.
std::vector<std::string> splitLines(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

// The most ints the search keeps for its way back; beyond it the middle is replaced whole.
constexpr size_t kMaxTraceInts = size_t(32) << 20;

// A shortest edit of a[a0, a1) into b[b0, b1) (Myers' greedy search), appended to `edits`.
void shortestEdit(const std::vector<std::string> &a, size_t a0, size_t a1,
                  const std::vector<std::string> &b, size_t b0, size_t b1,
                  std::vector<Edit> &edits) {
    const long n = static_cast<long>(a1 - a0), m = static_cast<long>(b1 - b0);
    const long max = n + m, offset = max + 1;
    std::vector<long> v(static_cast<size_t>(2 * max + 3), 0);
    std::vector<std::vector<long>> trace;
    bool found = false;
    for (long d = 0; d <= max && !found; ++d) {
        if ((trace.size() + 1) * v.size() > kMaxTraceInts) break;
        trace.push_back(v);
        for (long k = -d; k <= d; k += 2) {
            long x = (k == -d || (k != d && v[offset + k - 1] < v[offset + k + 1]))
                         ? v[offset + k + 1]
                         : v[offset + k - 1] + 1;
            long y = x - k;
            while (x < n && y < m && a[a0 + x] == b[b0 + y]) ++x, ++y;
            v[offset + k] = x;
            if (x >= n && y >= m) {
                found = true;
                break;
            }
        }
    }
    if (!found) {
        for (size_t i = a0; i < a1; ++i) edits.push_back({Op::kDelete, i});
        for (size_t j = b0; j < b1; ++j) edits.push_back({Op::kInsert, j});
        return;
    }
    std::vector<Edit> reversed;
    long x = n, y = m;
    for (long d = static_cast<long>(trace.size()) - 1; d >= 0; --d) {
        const std::vector<long> &w = trace[static_cast<size_t>(d)];
        long k = x - y;
        long prevK = (k == -d || (k != d && w[offset + k - 1] < w[offset + k + 1])) ? k + 1 : k - 1;
        long prevX = w[offset + prevK], prevY = prevX - prevK;
        while (x > prevX && y > prevY) {
            --x, --y;
            reversed.push_back({Op::kEqual, a0 + static_cast<size_t>(x)});
        }
        if (d > 0) {
            if (x == prevX) {
                reversed.push_back({Op::kInsert, b0 + static_cast<size_t>(y - 1)});
            } else {
                reversed.push_back({Op::kDelete, a0 + static_cast<size_t>(x - 1)});
            }
        }
        x = prevX, y = prevY;
    }
    edits.insert(edits.end(), reversed.rbegin(), reversed.rend());
}

std::string range(size_t start, size_t count) {
    // As diff prints it: the line before an empty range, no count for one line.
    if (count == 0) return std::to_string(start) + ",0";
    if (count == 1) return std::to_string(start + 1);
    return std::to_string(start + 1) + "," + std::to_string(count);
}

void appendLine(std::string &out, char mark, const std::string &line) {
    out += mark;
    out += line;
    if (line.empty() || line.back() != '\n') out += "\n\\ No newline at end of file\n";
}

}  // namespace

std::string unifiedDiff(const std::string &oldText, const std::string &newText,
                        const std::string &oldName, const std::string &newName) {
    if (oldText == newText) return "";
    const std::vector<std::string> a = splitLines(oldText), b = splitLines(newText);
    size_t prefix = 0;
    while (prefix < a.size() && prefix < b.size() && a[prefix] == b[prefix]) ++prefix;
    size_t suffix = 0;
    while (suffix < a.size() - prefix && suffix < b.size() - prefix &&
           a[a.size() - 1 - suffix] == b[b.size() - 1 - suffix]) {
        ++suffix;
    }
    std::vector<Edit> edits;
    for (size_t i = 0; i < prefix; ++i) edits.push_back({Op::kEqual, i});
    shortestEdit(a, prefix, a.size() - suffix, b, prefix, b.size() - suffix, edits);
    for (size_t i = a.size() - suffix; i < a.size(); ++i) edits.push_back({Op::kEqual, i});

    // Lines of each side before every edit, for the hunk headers.
    std::vector<size_t> oldBefore(edits.size() + 1, 0), newBefore(edits.size() + 1, 0);
    for (size_t i = 0; i < edits.size(); ++i) {
        oldBefore[i + 1] = oldBefore[i] + (edits[i].op != Op::kInsert ? 1 : 0);
        newBefore[i + 1] = newBefore[i] + (edits[i].op != Op::kDelete ? 1 : 0);
    }
    const size_t context = 3;
    std::string out = "--- " + oldName + "\n+++ " + newName + "\n";
    size_t i = 0;
    while (i < edits.size()) {
        if (edits[i].op == Op::kEqual) {
            ++i;
            continue;
        }
        // A hunk: changes whose gaps are at most two contexts long, with context around.
        size_t first = i, last = i;
        for (size_t j = i + 1; j < edits.size() && j <= last + 2 * context + 1; ++j) {
            if (edits[j].op != Op::kEqual) last = j;
        }
        size_t begin = first >= context ? first - context : 0;
        size_t end = std::min(edits.size(), last + 1 + context);
        out += "@@ -" + range(oldBefore[begin], oldBefore[end] - oldBefore[begin]) + " +" +
               range(newBefore[begin], newBefore[end] - newBefore[begin]) + " @@\n";
        for (size_t j = begin; j < end; ++j) {
            switch (edits[j].op) {
                case Op::kEqual: appendLine(out, ' ', a[edits[j].line]); break;
                case Op::kDelete: appendLine(out, '-', a[edits[j].line]); break;
                case Op::kInsert: appendLine(out, '+', b[edits[j].line]); break;
            }
        }
        i = end;
    }
    return out;
}

}  // namespace telocli
