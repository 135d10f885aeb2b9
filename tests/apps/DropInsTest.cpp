#include "apps/DropIns.h"

#include "apps/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace VtxQel
{
namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class DropInsTest : public testing::Test
{
  protected:
    void Write(const std::string& name, const std::string& text)
    {
        std::ofstream(m_folder.Path() + "/" + name) << text;
    }
    DropIns Load() const { return LoadDropIns(m_folder.Path()); }

    TemporaryFolder m_folder;
};

TEST_F(DropInsTest, AnEmptyFileHasTheDefaults)
{
    Write("a.toml", "");
    const DropIns dropIns = Load();
    EXPECT_THAT(dropIns.problems, IsEmpty());
    ASSERT_EQ(dropIns.applications.size(), 1U);
    const ApplicationSettings& settings = dropIns.applications[0];
    EXPECT_EQ(settings.name, "a");
    EXPECT_EQ(settings.user, "");
    EXPECT_EQ(settings.group, "");
    EXPECT_EQ(settings.window, 1000U);
    EXPECT_EQ(settings.ackTimeout, std::chrono::seconds(60));
    EXPECT_EQ(settings.maxTries, 5U);
    EXPECT_EQ(settings.maxHeldBytes, std::nullopt);
}

TEST_F(DropInsTest, EveryKeyIsRead)
{
    Write(
        "A.b-c_1.toml", "user = \"u\"\ngroup = \"g\"\nwindow = 65535\nack_timeout_seconds = 1\nmax_tries = 7\n"
                        "max_held_bytes = 1000000\nordering_key = \"header:customer\"\n");
    const DropIns dropIns = Load();
    EXPECT_THAT(dropIns.problems, IsEmpty());
    ASSERT_EQ(dropIns.applications.size(), 1U);
    ApplicationSettings wanted;
    wanted.name = "A.b-c_1";
    wanted.user = "u";
    wanted.group = "g";
    wanted.window = 65535;
    wanted.ackTimeout = std::chrono::seconds(1);
    wanted.maxTries = 7;
    wanted.maxHeldBytes = 1000000;
    wanted.orderingKey = "header:customer";
    EXPECT_EQ(dropIns.applications[0], wanted);
}

struct Mistake
{
    const char* name;
    const char* text;
    const char* place;
    const char* says;
};

class MistakeTest : public DropInsTest, public testing::WithParamInterface<Mistake>
{
};

TEST_P(MistakeTest, IsReportedWithItsPlaceAndTheOtherFilesCount)
{
    Write("bad.toml", GetParam().text);
    Write("good.toml", "window = 5\n");
    const DropIns dropIns = Load();
    ASSERT_EQ(dropIns.applications.size(), 1U);
    EXPECT_EQ(dropIns.applications[0].name, "good");
    ASSERT_EQ(dropIns.problems.size(), 1U);
    EXPECT_THAT(dropIns.problems[0], StartsWith(m_folder.Path() + "/bad.toml:" + GetParam().place));
    EXPECT_THAT(dropIns.problems[0], HasSubstr(GetParam().says));
}

INSTANTIATE_TEST_SUITE_P(
    All, MistakeTest,
    testing::Values(
        Mistake{"UnknownKey", "user = \"u\"\nwindw = 5\n", "2:1: ", "did you mean window?"},
        Mistake{"WrongType", "window = \"5\"\n", "1:10: ", "window must be a whole number from 1 to 65535"},
        Mistake{"OrderingKey", "ordering_key = \"key\"\n", "1:16: ", "use \"routing_key\" or \"header:NAME\""},
        Mistake{"WindowZero", "window = 0\n", "1:10: ", "from 1 to 65535"},
        Mistake{"WindowTooLarge", "window = 65536\n", "1:10: ", "from 1 to 65535"},
        Mistake{"UserIsNumber", "\nuser = 5\n", "2:8: ", "user must be a text in quotes"},
        Mistake{"NoTries", "max_tries = 0\n", "1:13: ", "max_tries must be"},
        Mistake{"NoTime", "ack_timeout_seconds = 0\n", "1:23: ", "ack_timeout_seconds must be"},
        Mistake{"NoBytes", "max_held_bytes = 0\n", "1:18: ", "max_held_bytes must be"},
        Mistake{"Syntax", "window = \n", "1:", ""}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(DropInsTest, ABadNameIsReported)
{
    Write("a b.toml", "");
    Write(std::string(65, 'x') + ".toml", "");
    Write(std::string(64, 'y') + ".toml", "");
    const DropIns dropIns = Load();
    EXPECT_EQ(dropIns.applications.size(), 1U);
    ASSERT_EQ(dropIns.problems.size(), 2U);
    EXPECT_THAT(dropIns.problems[0], HasSubstr("\"a b\" is no application's name"));
}

TEST_F(DropInsTest, OtherFilesAreIgnoredAndAllProblemsCollected)
{
    Write("a.toml.bak", "x = 1");
    Write(".hidden.toml", "x = 1");
    Write("b.toml", "x = 1\nwindow = 0\n");
    Write("c.toml", "y = 1\n");
    EXPECT_EQ(Load().problems.size(), 3U);
    EXPECT_THAT(Load().applications, IsEmpty());
}

TEST_F(DropInsTest, AMissingFolderIsAProblem)
{
    const DropIns dropIns = LoadDropIns(m_folder.Path() + "/none");
    EXPECT_THAT(dropIns.problems, ElementsAre(m_folder.Path() + "/none: cannot be read: No such file or directory"));
}

TEST_F(DropInsTest, AProblemIsOneLineWhateverTheFileHolds)
{
    Write("a.toml", "\"x\\ny\" = 1\n");
    Write("b\nc.toml", "");
    EXPECT_THAT(
        Load().problems, ElementsAre(
                             AllOf(HasSubstr("a.toml:1:1: x\\x0ay is not a key"), Not(HasSubstr("\n"))),
                             AllOf(HasSubstr("\"b\\x0ac\" is no application's name"), Not(HasSubstr("\n")))));
}

TEST_F(DropInsTest, AnEnormousFileIsNotRead)
{
    std::string keys = "a";
    for (int part = 0; part < 100000; ++part)
    {
        keys += ".a";
    }
    Write("a.toml", keys + " = 1\n");
    Write("b.toml", "#" + std::string(32766, 'x') + "\n");
    const DropIns dropIns = Load();
    EXPECT_THAT(dropIns.problems, ElementsAre(HasSubstr("a.toml: has more than 32768 bytes")));
    EXPECT_EQ(dropIns.applications.size(), 1U);
}

TEST_F(DropInsTest, TheLongestKeyThatIsReadIsRefusedInOrder)
{
    std::string keys = "a";
    while (keys.size() + 6 < 32768)
    {
        keys += ".a";
    }
    Write("a.toml", keys + " = 1\n");
    EXPECT_THAT(Load().problems, ElementsAre(HasSubstr("a.toml:1:1: a is not a key that is known")));
}

} // namespace
} // namespace VtxQel
