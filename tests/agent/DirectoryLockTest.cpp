#include "agent/DirectoryLock.h"

#include "apps/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

using namespace VtxQel;
using testing::HasSubstr;

namespace
{

std::string ErrorFor(const std::string& directory)
{
    try
    {
        const DirectoryLock lock(directory);
    }
    catch (const std::runtime_error& error)
    {
        return error.what();
    }
    return "";
}

} // namespace

TEST(DirectoryLockTest, MakesTheDirectory)
{
    const TemporaryFolder folder;
    const DirectoryLock lock(folder.Path() + "/a/b");
    EXPECT_TRUE(std::filesystem::is_directory(folder.Path() + "/a/b"));
}

TEST(DirectoryLockTest, OneAtATime)
{
    const TemporaryFolder folder;
    std::optional<DirectoryLock> lock(std::in_place, folder.Path());
    EXPECT_THAT(ErrorFor(folder.Path()), HasSubstr("is used by another qel-agent"));
    lock.reset();
    EXPECT_EQ(ErrorFor(folder.Path()), "");
}

TEST(DirectoryLockTest, WhatIsNoDirectoryIsLeftToThoseWhoUseIt)
{
    const TemporaryFolder folder;
    const std::string file = folder.Path() + "/file";
    std::ofstream(file) << "not a directory";
    EXPECT_EQ(ErrorFor(file), "");
}
