#include "qelctl/ConfigurationFolder.h"

#include "qelctl/Failure.h"
#include "tools/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace VtxQel
{
namespace
{

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/** "+agent/application" for a file that is there, "-" for one that is gone. */
std::vector<std::string> Names(const std::vector<ConfigurationChange>& changes)
{
    std::vector<std::string> names;
    names.reserve(changes.size());
    for (const ConfigurationChange& change : changes)
    {
        names.push_back((change.removed ? "-" : "+") + change.agent + "/" + change.application);
    }
    return names;
}

class ConfigurationFolderTest : public ::testing::Test
{
  protected:
    ConfigurationFolderTest() { fs::create_directory(m_root.Path("host-1")); }

    void Write(const std::string& name) const { m_root.Write(name, "{}"); }

    TemporaryFolder m_root;
};

TEST_F(ConfigurationFolderTest, TellsEverythingOnceAndThenWhatChanges)
{
    Write("host-1/web.json");
    ConfigurationFolder folder(m_root.Path("."));
    const std::vector<ConfigurationChange> first = folder.Take();
    EXPECT_THAT(Names(first), ElementsAre("+host-1/web"));
    EXPECT_TRUE(fs::equivalent(first.at(0).file, m_root.Path("host-1/web.json")));
    EXPECT_THAT(folder.Take(), IsEmpty());

    Write("host-1/mail.json");
    Write("host-1/web.json");
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-1/mail", "+host-1/web"));
    fs::remove(m_root.Path("host-1/web.json"));
    EXPECT_THAT(Names(folder.Take()), ElementsAre("-host-1/web"));
    EXPECT_THAT(folder.Take(), IsEmpty());
}

TEST_F(ConfigurationFolderTest, AFileThatIsMovedThereCounts)
{
    Write("host-1/web.json");
    ConfigurationFolder folder(m_root.Path("."));
    folder.Take();
    Write("host-1/web.json.new");
    EXPECT_THAT(folder.Take(), IsEmpty());
    fs::rename(m_root.Path("host-1/web.json.new"), m_root.Path("host-1/web.json"));
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-1/web"));
    fs::rename(m_root.Path("host-1/web.json"), m_root.Path("host-1/mail.json"));
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-1/mail", "-host-1/web"));
}

TEST_F(ConfigurationFolderTest, AFileThatIsBeingWrittenDoesNotCountYet)
{
    ConfigurationFolder folder(m_root.Path("."));
    folder.Take();
    std::ofstream file(m_root.Path("host-1/web.json"));
    file << "{" << std::flush;
    EXPECT_THAT(folder.Take(), IsEmpty());
    file << "}";
    file.close();
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-1/web"));
}

TEST_F(ConfigurationFolderTest, FoldersComeMoveAndGo)
{
    ConfigurationFolder folder(m_root.Path("."));
    folder.Take();
    fs::create_directory(m_root.Path("host-2"));
    Write("host-2/web.json");
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-2/web"));
    fs::rename(m_root.Path("host-2"), m_root.Path("host-3"));
    EXPECT_THAT(Names(folder.Take()), ElementsAre("-host-2/web", "+host-3/web"));
    Write("host-3/mail.json");
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-3/mail"));
    fs::remove_all(m_root.Path("host-3"));
    EXPECT_THAT(Names(folder.Take()), ElementsAre("-host-3/mail", "-host-3/web"));
    fs::create_directory(m_root.Path("host-3"));
    EXPECT_THAT(folder.Take(), IsEmpty());
    Write("host-3/web.json");
    EXPECT_THAT(Names(folder.Take()), ElementsAre("+host-3/web"));
}

TEST_F(ConfigurationFolderTest, OtherFilesAreForOthers)
{
    fs::create_directory(m_root.Path(".git"));
    fs::create_directory(m_root.Path("host-1/folder.json"));
    for (const char* const name :
         {"host-1/.web.json", "host-1/web.json~", "host-1/README", "web.json", ".git/web.json"})
    {
        Write(name);
    }
    ConfigurationFolder folder(m_root.Path("."));
    EXPECT_THAT(folder.Take(), IsEmpty());
}

TEST_F(ConfigurationFolderTest, WaitsForAChangeOrToBeWoken)
{
    ConfigurationFolder folder(m_root.Path("."));
    folder.Take();
    EXPECT_FALSE(folder.Wait(std::chrono::milliseconds(0)));
    std::thread writer([this] { Write("host-1/web.json"); });
    EXPECT_TRUE(folder.Wait(std::nullopt));
    writer.join();
    folder.Take();
    folder.Wake();
    EXPECT_TRUE(folder.Wait(std::nullopt));
    EXPECT_FALSE(folder.Wait(std::chrono::milliseconds(0)));
}

TEST_F(ConfigurationFolderTest, AFolderThatIsNotThereIsAFailure)
{
    EXPECT_THROW(ConfigurationFolder(m_root.Path("absent")), Failure);
    ConfigurationFolder folder(m_root.Path("host-1"));
    fs::remove(m_root.Path("host-1"));
    EXPECT_THROW(folder.Take(), Failure);
}

} // namespace
} // namespace VtxQel
