#include "qelctl/DevFolder.h"

#include "qelctl/Failure.h"
#include "tools/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace VtxQel
{

namespace
{

namespace fs = std::filesystem;

std::string FirstLine(const std::string& file)
{
    std::ifstream input(file);
    std::string line;
    std::getline(input, line);
    return line;
}

} // namespace

TEST(DevFolder, ANewOneGoesWithEverythingInIt)
{
    std::string file;
    {
        const DevFolder folder("");
        folder.Make("a/b");
        file = folder.Write("a/b/secret", "x\n");
        EXPECT_EQ(fs::status(folder.Path("")).permissions(), fs::perms::owner_all);
        EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_FALSE(folder.IsKept());
    }
    EXPECT_FALSE(fs::exists(fs::path(file).parent_path().parent_path().parent_path()));
}

TEST(DevFolder, AKeptOneIsUsedAgain)
{
    const TemporaryFolder parent;
    const std::string path = parent.Path("kept");
    {
        const DevFolder folder(path);
        EXPECT_TRUE(folder.IsKept());
        folder.Write("edited", "by hand\n");
        EXPECT_THROW(DevFolder second(path), Failure) << "by one at a time";
    }
    const DevFolder folder(path);
    EXPECT_EQ(FirstLine(folder.WriteOnce("edited", "sample\n")), "by hand");
    EXPECT_EQ(FirstLine(folder.Write("edited", "anew\n")), "anew");
}

TEST(DevFolder, ANameThatIsOfNoUseIsRefused)
{
    EXPECT_THROW(DevFolder("a b"), UsageError);
    EXPECT_THROW(DevFolder("/proc/nowhere"), Failure);
}

} // namespace VtxQel
