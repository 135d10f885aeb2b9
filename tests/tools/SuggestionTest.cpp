#include "common/Suggestion.h"

#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{

TEST(Suggestion, TheClosestCandidateIsNamed)
{
    EXPECT_EQ(Suggest("windw", {"user", "window"}), ": did you mean window?");
    EXPECT_EQ(Suggest("USER", {"user", "window"}), ": did you mean user?");
}

TEST(Suggestion, WithoutACloseOneAllAreListed)
{
    EXPECT_EQ(Suggest("qqq", {"user", "window"}), ": known are user, window");
    EXPECT_EQ(Suggest(std::string(1000000, 'u'), {"user"}), ": known are user");
}

} // namespace VtxQel
