#pragma once

#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/** A topic's words: what stands between its dots; none when it is empty. */
inline std::vector<std::string> WordsOf(const std::string& topic)
{
    std::vector<std::string> words;
    if (!topic.empty())
    {
        words.emplace_back();
    }
    for (const char character : topic)
    {
        if (character == '.')
        {
            words.emplace_back();
        }
        else
        {
            words.back() += character;
        }
    }
    return words;
}

/**
 * Whether the pattern matches the key, by a table: row p, column k says whether the pattern's words from p on match the
 * key's from k on.
 */
inline bool Matches(const std::string& pattern, const std::string& key)
{
    const std::vector<std::string> wanted = WordsOf(pattern);
    const std::vector<std::string> words = WordsOf(key);
    std::vector<std::vector<bool>> table(wanted.size() + 1, std::vector<bool>(words.size() + 1, false));
    table[wanted.size()][words.size()] = true;
    for (std::size_t p = wanted.size(); p-- > 0;)
    {
        for (std::size_t k = words.size() + 1; k-- > 0;)
        {
            const bool hasWord = k < words.size();
            table[p][k] = wanted[p] == "#"
                              ? table[p + 1][k] || (hasWord && table[p][k + 1])
                              : hasWord && (wanted[p] == "*" || wanted[p] == words[k]) && table[p + 1][k + 1];
        }
    }
    return table[0][0];
}

} // namespace VtxQel::Fuzz
