#include "LineDiff.h"

#include <algorithm>
#include <vector>

namespace opcdir {
namespace {

constexpr std::size_t kContext = 3;
// Past this many edits the search would keep D^2 integers; 2,000 edits is
// about 16 MB.
constexpr long kMaxEdits = 2000;

enum class Op { Keep, Remove, Add };

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start + 1));
        start = end + 1;
    }
    return lines;
}

using Lines = std::vector<std::string_view>;

// Shortest edit script of a into b by the greedy O(ND) search; the frontier
// of each round is kept (only its 2d + 3 used entries) for the walk back.
bool shortestEdit(const Lines& a, const Lines& b, std::vector<Op>& script) {
    const long n = static_cast<long>(a.size());
    const long m = static_cast<long>(b.size());
    const long limit = std::min(n + m, kMaxEdits);
    const long offset = limit + 1;
    std::vector<int> frontier(static_cast<std::size_t>(2 * offset + 1), 0);
    std::vector<std::vector<int>> rounds;
    for (long d = 0; d <= limit; ++d) {
        rounds.emplace_back(frontier.begin() + offset - d - 1, frontier.begin() + offset + d + 2);
        for (long k = -d; k <= d; k += 2) {
            const bool down = k == -d || (k != d && frontier[offset + k - 1] < frontier[offset + k + 1]);
            long x = down ? frontier[offset + k + 1] : frontier[offset + k - 1] + 1L;
            long y = x - k;
            while (x < n && y < m && a[x] == b[y]) ++x, ++y;
            frontier[offset + k] = static_cast<int>(x);
            if (x < n || y < m) continue;
            std::vector<Op> reversed;
            for (long e = d; e > 0; --e) {
                const std::vector<int>& before = rounds[static_cast<std::size_t>(e)];
                const auto at = [&](long key) { return static_cast<long>(before[key + e + 1]); };
                const long ck = x - y;
                const bool cameDown = ck == -e || (ck != e && at(ck - 1) < at(ck + 1));
                const long px = at(cameDown ? ck + 1 : ck - 1);
                const long py = px - (cameDown ? ck + 1 : ck - 1);
                // The snake after the move ran from (px, py + 1) or (px + 1, py).
                reversed.insert(reversed.end(), static_cast<std::size_t>(cameDown ? x - px : y - py), Op::Keep);
                reversed.push_back(cameDown ? Op::Add : Op::Remove);
                x = px;
                y = py;
            }
            reversed.insert(reversed.end(), static_cast<std::size_t>(x), Op::Keep);
            script.assign(reversed.rbegin(), reversed.rend());
            return true;
        }
    }
    return false;
}

void appendLine(std::string& out, char mark, std::string_view line) {
    out += mark;
    out += line;
    if (line.empty() || line.back() != '\n') out += "\n\\ No newline at end of file\n";
}

std::string range(std::size_t start, std::size_t count) {
    // A hunk of no lines names the line before it.
    std::string text = std::to_string(count == 0 ? start : start + 1);
    if (count != 1) text += "," + std::to_string(count);
    return text;
}

}  // namespace

std::string unifiedDiff(std::string_view from,
                        std::string_view to,
                        const std::string& fromLabel,
                        const std::string& toLabel) {
    const Lines a = splitLines(from);
    const Lines b = splitLines(to);
    std::size_t prefix = 0;
    while (prefix < a.size() && prefix < b.size() && a[prefix] == b[prefix]) ++prefix;
    std::size_t suffix = 0;
    while (suffix < a.size() - prefix && suffix < b.size() - prefix &&
           a[a.size() - 1 - suffix] == b[b.size() - 1 - suffix])
        ++suffix;
    if (prefix == a.size() && prefix == b.size()) return {};

    const Lines middleA(a.begin() + static_cast<long>(prefix), a.end() - static_cast<long>(suffix));
    const Lines middleB(b.begin() + static_cast<long>(prefix), b.end() - static_cast<long>(suffix));
    std::vector<Op> script(prefix, Op::Keep);
    std::vector<Op> middle;
    if (!shortestEdit(middleA, middleB, middle)) {
        middle.assign(middleA.size(), Op::Remove);
        middle.insert(middle.end(), middleB.size(), Op::Add);
    }
    script.insert(script.end(), middle.begin(), middle.end());
    script.insert(script.end(), suffix, Op::Keep);

    std::string out = "--- " + fromLabel + "\n+++ " + toLabel + "\n";
    // Positions of each step in both texts, for the hunk headers.
    std::vector<std::size_t> inA(script.size() + 1);
    std::vector<std::size_t> inB(script.size() + 1);
    for (std::size_t i = 0; i < script.size(); ++i) {
        inA[i + 1] = inA[i] + (script[i] != Op::Add ? 1 : 0);
        inB[i + 1] = inB[i] + (script[i] != Op::Remove ? 1 : 0);
    }
    std::size_t i = 0;
    while (i < script.size()) {
        if (script[i] == Op::Keep) {
            ++i;
            continue;
        }
        // A hunk runs from kContext lines before a change to kContext lines
        // after the last change that is no more than 2 * kContext lines away.
        const std::size_t begin = i >= kContext ? i - kContext : 0;
        std::size_t end = i;
        for (std::size_t keeps = 0; end < script.size() && keeps <= 2 * kContext; ++end) {
            keeps = script[end] == Op::Keep ? keeps + 1 : 0;
        }
        while (end > i && script[end - 1] == Op::Keep) --end;
        end = std::min(script.size(), end + kContext);
        out += "@@ -" + range(inA[begin], inA[end] - inA[begin]) + " +" + range(inB[begin], inB[end] - inB[begin]) +
               " @@\n";
        for (std::size_t k = begin; k < end; ++k) {
            if (script[k] == Op::Keep) appendLine(out, ' ', a[inA[k]]);
            if (script[k] == Op::Remove) appendLine(out, '-', a[inA[k]]);
            if (script[k] == Op::Add) appendLine(out, '+', b[inB[k]]);
        }
        i = end;
    }
    return out;
}

}  // namespace opcdir
