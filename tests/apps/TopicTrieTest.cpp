#include "apps/TopicTrie.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

using Trie = TopicTrie<int>;

bool Matches(const std::string& pattern, const std::string& key)
{
    Trie trie;
    trie.Add(pattern, 1);
    int count = 0;
    trie.Match(key, [&count](int) { ++count; });
    EXPECT_LE(count, 1) << pattern << " met " << count << " times by " << key;
    return count != 0;
}

TEST(TopicTrie, AStarStandsForExactlyOneWord)
{
    EXPECT_TRUE(Matches("a.*.c", "a.b.c"));
    EXPECT_TRUE(Matches("*", "a"));
    EXPECT_TRUE(Matches("a.*", "a."));
    EXPECT_FALSE(Matches("a.*.c", "a.c"));
    EXPECT_FALSE(Matches("a.*.c", "a.b.b.c"));
    EXPECT_FALSE(Matches("*", ""));
    EXPECT_FALSE(Matches("*", "a.b"));
}

TEST(TopicTrie, AHashStandsForAnyNumberOfWords)
{
    EXPECT_TRUE(Matches("#", ""));
    EXPECT_TRUE(Matches("#", "a.b.c"));
    EXPECT_TRUE(Matches("a.#", "a"));
    EXPECT_TRUE(Matches("a.#", "a.b.c"));
    EXPECT_TRUE(Matches("#.c", "c"));
    EXPECT_TRUE(Matches("#.c", "a.b.c"));
    EXPECT_FALSE(Matches("a.#", "b.a"));
    EXPECT_FALSE(Matches("#.c", "a.c.b"));
}

TEST(TopicTrie, AHashInTheMiddleTakesNoneOneOrMany)
{
    EXPECT_TRUE(Matches("a.#.c", "a.c"));
    EXPECT_TRUE(Matches("a.#.c", "a.b.c"));
    EXPECT_TRUE(Matches("a.#.c", "a.b.b.c.c"));
    EXPECT_FALSE(Matches("a.#.c", "a"));
    EXPECT_FALSE(Matches("a.#.c", "a.b"));
    EXPECT_TRUE(Matches("#.b.#", "a.b.c"));
    EXPECT_TRUE(Matches("#.#", "a"));
    EXPECT_TRUE(Matches("#.*.#", "a"));
    EXPECT_FALSE(Matches("#.*.#", ""));
}

TEST(TopicTrie, WildcardsInsideAWordAreOrdinary)
{
    EXPECT_FALSE(Trie::HasWildcard("a.b*.c#"));
    EXPECT_TRUE(Trie::HasWildcard("a.*"));
    EXPECT_TRUE(Trie::HasWildcard("#"));
    EXPECT_TRUE(Matches("a*", "a*"));
    EXPECT_FALSE(Matches("a*", "ab"));
}

TEST(TopicTrie, AKeysOwnStarIsAWordLikeAnyOther)
{
    EXPECT_TRUE(Matches("a.*", "a.*"));
    EXPECT_TRUE(Matches("a.#", "a.#"));
    EXPECT_FALSE(Matches("a.b", "a.*"));
}

TEST(TopicTrie, RemoveTakesOneValueAndLeavesTheOthers)
{
    Trie trie;
    trie.Add("a.*", 1);
    trie.Add("a.*", 2);
    trie.Add("a.*.c", 3);
    trie.Remove("a.*", 1);
    trie.Remove("a.*", 7);
    trie.Remove("x.y", 1);
    std::vector<int> found;
    trie.Match("a.b", [&found](int value) { found.push_back(value); });
    EXPECT_THAT(found, testing::ElementsAre(2));
    trie.Remove("a.*", 2);
    EXPECT_FALSE(trie.IsEmpty());
    trie.Remove("a.*.c", 3);
    EXPECT_TRUE(trie.IsEmpty());
}

/** The rule written down as plainly as can be. */
bool MatchesPlainly(
    const std::vector<std::string>& pattern, std::size_t p, const std::vector<std::string>& key, std::size_t k)
{
    if (p == pattern.size())
    {
        return k == key.size();
    }
    if (pattern[p] == "#")
    {
        return MatchesPlainly(pattern, p + 1, key, k) || (k < key.size() && MatchesPlainly(pattern, p, key, k + 1));
    }
    return k < key.size() && (pattern[p] == "*" || pattern[p] == key[k]) && MatchesPlainly(pattern, p + 1, key, k + 1);
}

std::string Join(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
    {
        text += (text.empty() ? "" : ".") + word;
    }
    return text;
}

TEST(TopicTrie, AgreesWithThePlainRuleOnRandomPatterns)
{
    std::mt19937 random(20240131);
    const std::vector<std::string> alphabet{"a", "b", "*", "#"};
    const auto words = [&random, &alphabet](std::size_t longest, std::size_t letters)
    {
        std::vector<std::string> made(random() % (longest + 1));
        for (std::string& word : made)
        {
            word = alphabet[random() % letters];
        }
        return made;
    };
    for (int round = 0; round < 20000; ++round)
    {
        const auto pattern = words(5, 4);
        const auto key = words(6, 2);
        ASSERT_EQ(Matches(Join(pattern), Join(key)), MatchesPlainly(pattern, 0, key, 0))
            << Join(pattern) << " and " << Join(key);
    }
}

TEST(TopicTrie, ManyHashesDoNotMakeALookUpExplode)
{
    std::string pattern = "#";
    std::string key = "a";
    for (int word = 1; word < 60; ++word)
    {
        pattern += ".#";
        key += ".a";
    }
    // With a search that tries every division of the words this would not end.
    EXPECT_TRUE(Matches(pattern, key));
    EXPECT_FALSE(Matches(pattern + ".b", key));
}

} // namespace
} // namespace VtxQel
