#pragma once

#include <string>
#include <string_view>

namespace opcdir {

// The differences between two texts as a unified diff with three lines of
// context, headed "--- <fromLabel>" and "+++ <toLabel>"; empty when the texts
// are equal. Lines are split at '\n'; a last line without one is marked
// "\ No newline at end of file". Work and memory grow with the square of the
// number of changed lines only up to a bound; beyond it the changed region is
// shown as removed and added whole, which is still a correct diff.
std::string unifiedDiff(std::string_view from,
                        std::string_view to,
                        const std::string& fromLabel,
                        const std::string& toLabel);

}  // namespace opcdir
