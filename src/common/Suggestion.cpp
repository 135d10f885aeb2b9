#include "common/Suggestion.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>

namespace VtxQel
{

namespace
{

/** How many letters must be put in, taken out or changed to make one word of the other; case does not count. */
std::size_t Distance(const std::string& left, const std::string& right)
{
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < left.size(); ++i)
    {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j)
        {
            const bool same =
                std::tolower(static_cast<unsigned char>(left[i])) == std::tolower(static_cast<unsigned char>(right[j]));
            const std::size_t changed = diagonal + (same ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::string Suggest(const std::string& word, const std::vector<std::string>& candidates)
{
    // A word far longer than every candidate is close to none, and comparing it would be the only cost here.
    constexpr std::size_t longestTypo = 64;
    std::size_t least = word.size() > longestTypo ? 0 : word.size() / 2 + 1;
    std::string closest;
    std::string all;
    for (const std::string& candidate : candidates)
    {
        all += (all.empty() ? "" : ", ") + candidate;
        const std::size_t distance = least == 0 ? 0 : Distance(word, candidate);
        if (distance < least)
        {
            least = distance;
            closest = candidate;
        }
    }
    return closest.empty() ? ": known are " + all : ": did you mean " + closest + "?";
}

} // namespace VtxQel
