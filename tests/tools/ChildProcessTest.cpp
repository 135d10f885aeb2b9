#include "qelctl/ChildProcess.h"

#include "qelctl/Failure.h"
#include "tools/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <vector>

namespace VtxQel
{

namespace
{

using ::testing::HasSubstr;

class ChildProcessTest : public ::testing::Test
{
  protected:
    ChildProgram Program(const std::string& file, const std::vector<std::string>& arguments) const
    {
        return {"the child", file, arguments, {{"GREETING", "good day"}}, m_folder.Path("output")};
    }

    TemporaryFolder m_folder;
};

} // namespace

TEST_F(ChildProcessTest, ItsEndIsToldWithItsLastWords)
{
    std::latch ended(1);
    const ChildProcess child(
        Program("/bin/sh", {"-c", "echo \"$GREETING\"; echo '$x' >&2; exit 3"}), [&ended] { ended.count_down(); });
    ended.wait();
    EXPECT_TRUE(child.HasEnded());
    EXPECT_EQ(child.Obituary(), "the child has ended with status 3; its last words:\n  good day\n  $x");
}

TEST_F(ChildProcessTest, ItEndsWithItsOwner)
{
    std::latch ended(1);
    {
        const ChildProcess child(Program("/bin/sleep", {"1000"}), [&ended] { ended.count_down(); });
        EXPECT_FALSE(child.HasEnded());
        EXPECT_EQ(child.Tail(), "");
    }
    ended.wait();
}

TEST_F(ChildProcessTest, WhatCannotBeStartedIsNamed)
{
    try
    {
        const ChildProcess child(Program(m_folder.Path("nothing"), {}), [] {});
        FAIL() << "it was started";
    }
    catch (const Failure& failure)
    {
        EXPECT_THAT(
            failure.what(), HasSubstr("the child (" + m_folder.Path("nothing") + ") cannot be started: No such"));
    }
}

TEST_F(ChildProcessTest, AProgramIsFoundInThePathOrInTheFolder)
{
    EXPECT_THAT(FindProgram("sh", ""), HasSubstr("/sh"));
    EXPECT_EQ(FindProgram("no-such-program", "/bin"), "");
}

} // namespace VtxQel
