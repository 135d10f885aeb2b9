#include "broker/Journal.h"

#include "fakes/LogCapture.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace VtxQel
{
namespace
{

std::ptrdiff_t Count(const std::vector<std::string>& lines, const std::string& text)
{
    return std::count_if(
        lines.begin(), lines.end(), [&text](const std::string& line) { return line.find(text) != std::string::npos; });
}

/** No file of this process may grow beyond the size given, as on a full disk, while it lives. */
class FullDisk
{
  public:
    explicit FullDisk(rlim_t size)
    {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit tight{size, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &tight);
    }
    ~FullDisk()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handlerBefore);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    rlimit m_before{};
    void (*const m_handlerBefore)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

class JournalTest : public testing::Test
{
  protected:
    ~JournalTest() override { std::filesystem::remove_all(folder); }

    static std::filesystem::path MakeFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-journal-XXXXXX").string();
        return ::mkdtemp(pattern.data());
    }

    std::vector<RouteRecord> Reopened() const { return Journal(file).Load(); }

    const std::filesystem::path folder = MakeFolder();
    const std::string file = (folder / "journal").string();
    const RouteRecord topic{"web", RouteKind::topic, "a.b", "normal", RouteState::intended};
    const RouteRecord queue{"web", RouteKind::queue, "q", "", RouteState::inForce};
};

TEST_F(JournalTest, WhatWasWrittenIsThereAfterReopening)
{
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{topic}, {queue}}));
    }
    EXPECT_EQ(Reopened(), (std::vector<RouteRecord>{topic, queue}));
}

TEST_F(JournalTest, AChangedStateReplacesTheRecord)
{
    RouteRecord changed = topic;
    changed.state = RouteState::leaving;
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{topic}}));
        EXPECT_TRUE(journal.Write({{changed}}));
    }
    EXPECT_EQ(Reopened(), std::vector<RouteRecord>{changed});
}

TEST_F(JournalTest, ErasedRecordsAreGone)
{
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{topic}, {queue}}));
        EXPECT_TRUE(journal.Write({{topic, true}}));
    }
    EXPECT_EQ(Reopened(), std::vector<RouteRecord>{queue});
}

TEST_F(JournalTest, EraseLeavingSparesWhatIsInUse)
{
    RouteRecord leaving = topic;
    leaving.state = RouteState::leaving;
    RouteRecord used = topic;
    used.application = "mail";
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{leaving}, {used}}));
        EXPECT_TRUE(journal.EraseLeaving("normal", "a.b"));
    }
    EXPECT_EQ(Reopened(), std::vector<RouteRecord>{used});
}

TEST_F(JournalTest, NamesMayHoldAnyBytes)
{
    RouteRecord odd = topic;
    odd.name = std::string("a\0b\n'\xff", 6);
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{odd}}));
    }
    EXPECT_EQ(Reopened(), std::vector<RouteRecord>{odd});
}

TEST_F(JournalTest, ADamagedFileIsSetAsideWithAWarning)
{
    std::ofstream(file) << std::string(8192, 'x');
    const Fakes::LogCapture log(vtx::LevelWarning);
    Journal journal(file);
    EXPECT_FALSE(journal.IsDegraded());
    EXPECT_EQ(journal.Load(), std::vector<RouteRecord>());
    EXPECT_TRUE(std::filesystem::exists(file + ".corrupt"));
    EXPECT_EQ(Count(log.Lines(), "journal begun anew"), 1);
    EXPECT_TRUE(journal.Write({{topic}}));
}

TEST_F(JournalTest, AFolderThatDoesNotExistDegradesAndSaysSoOnce)
{
    const Fakes::LogCapture log(vtx::LevelWarning);
    Journal journal((folder / "absent" / "journal").string());
    EXPECT_TRUE(journal.IsDegraded());
    EXPECT_FALSE(journal.Write({{topic}}));
    EXPECT_FALSE(journal.Write({{topic}}));
    EXPECT_EQ(Count(log.Lines(), "cannot be written"), 1);
}

TEST_F(JournalTest, ReplaceEndsADegradedState)
{
    const std::filesystem::path later = folder / "later";
    {
        Journal journal((later / "journal").string());
        ASSERT_TRUE(journal.IsDegraded());
        EXPECT_FALSE(journal.Replace({topic}));
        std::filesystem::create_directory(later);
        EXPECT_TRUE(journal.Replace({topic, queue}));
        EXPECT_FALSE(journal.IsDegraded());
    }
    EXPECT_EQ(Journal((later / "journal").string()).Load(), (std::vector<RouteRecord>{topic, queue}));
}

TEST_F(JournalTest, AFullDiskDegradesAndSaysSoOnceUntilReplaceFindsRoom)
{
    std::vector<RouteRecord> many;
    std::vector<JournalChange> changes;
    for (int number = 0; number < 5000; ++number)
    {
        many.push_back({"web", RouteKind::topic, "topic." + std::to_string(number), "normal", RouteState::inForce});
        changes.push_back({many.back()});
    }
    const Fakes::LogCapture log(vtx::LevelWarning);
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{topic}}));
        {
            const FullDisk full(std::filesystem::file_size(file + "-wal"));
            EXPECT_FALSE(journal.Write(changes));
            EXPECT_TRUE(journal.IsDegraded());
            EXPECT_FALSE(journal.Write({{queue}}));
            EXPECT_FALSE(journal.Replace(many));
            EXPECT_EQ(Count(log.Lines(), "cannot be written"), 1);
        }
        EXPECT_EQ(journal.Load(), std::vector<RouteRecord>{topic}) << "all or nothing";
        EXPECT_EQ(Count(log.Lines(), "complete again"), 0);
        EXPECT_TRUE(journal.Replace(many));
        EXPECT_FALSE(journal.IsDegraded());
        EXPECT_EQ(Count(log.Lines(), "complete again"), 1);
        EXPECT_TRUE(journal.Write({{queue}}));
    }
    many.push_back(queue);
    EXPECT_EQ(Reopened(), many);
}

TEST_F(JournalTest, AFullDiskAtTheStartKeepsTheFile)
{
    {
        Journal journal(file);
        EXPECT_TRUE(journal.Write({{topic}}));
    }
    const Fakes::LogCapture log(vtx::LevelWarning);
    const FullDisk full(std::filesystem::file_size(file + "-shm"));
    EXPECT_EQ(Journal(file).Load(), std::vector<RouteRecord>{topic});
    EXPECT_FALSE(std::filesystem::exists(file + ".corrupt"));
}

TEST_F(JournalTest, AFileThatIsNotOursIsSetAside)
{
    std::ofstream(file) << "short";
    Journal journal(file);
    EXPECT_FALSE(journal.IsDegraded());
    EXPECT_TRUE(std::filesystem::exists(file + ".corrupt"));
}

TEST_F(JournalTest, WhatANewerVersionWroteIsSetAside)
{
    EXPECT_TRUE(Journal(file).Write({{topic}}));
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "PRAGMA user_version=2", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    const Fakes::LogCapture log(vtx::LevelWarning);
    EXPECT_EQ(Journal(file).Load(), std::vector<RouteRecord>());
    EXPECT_TRUE(std::filesystem::exists(file + ".corrupt"));
    EXPECT_EQ(Count(log.Lines(), "a newer version of qel-agent has written it"), 1);
}

TEST_F(JournalTest, AFileThatCannotBeOpenedIsNotSetAside)
{
    const Fakes::LogCapture log(vtx::LevelWarning);
    std::filesystem::create_directory(file);
    const Journal journal(file);
    EXPECT_TRUE(journal.IsDegraded());
    EXPECT_TRUE(std::filesystem::is_directory(file));
    EXPECT_EQ(Count(log.Lines(), "cannot be written"), 1);
}

} // namespace
} // namespace VtxQel
