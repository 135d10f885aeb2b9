#include "qelctl/ConfigurationFile.h"

#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{

namespace
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

/** The mistakes that reading `text` as web.json reports, empty when there are none. */
std::string MistakesIn(const std::string& text)
{
    try
    {
        ParseConfiguration("web.json", text);
        return "";
    }
    catch (const ConfigurationError& error)
    {
        return error.what();
    }
}

} // namespace

TEST(ConfigurationFile, TopicsKeepTheirOrderAndPriorities)
{
    const AppInitConfigMsg message = ParseConfiguration(
        "web.json",
        R"({"topicInfo": [{"topic": "b"}, {"topic": "a", "priority": 4294967295}], "queueName": ["q", "p"]})");

    ASSERT_EQ(message.topic_info_size(), 2);
    EXPECT_EQ(message.topic_info(0).topic(), "b");
    EXPECT_FALSE(message.topic_info(0).has_priority());
    EXPECT_EQ(message.topic_info(1).topic(), "a");
    EXPECT_EQ(message.topic_info(1).priority(), 4294967295U);
    ASSERT_EQ(message.queue_name_size(), 2);
    EXPECT_EQ(message.queue_name(0), "q");
    EXPECT_EQ(message.queue_name(1), "p");
}

TEST(ConfigurationFile, KeysMayBeSpeltAsTheSchemaDoes)
{
    const AppInitConfigMsg message =
        ParseConfiguration("web.json", R"({"topic_info": [{"topic": "a"}], "queue_name": ["q"]})");

    EXPECT_EQ(message.topic_info_size(), 1);
    EXPECT_EQ(message.queue_name_size(), 1);
}

TEST(ConfigurationFile, AnEmptyObjectIsAnEmptyConfiguration)
{
    EXPECT_EQ(ParseConfiguration("web.json", "{}").ByteSizeLong(), 0U);
}

TEST(ConfigurationFile, ANegativePriorityIsReportedWithLineColumnAndField)
{
    const std::string text = "{\n"
                             "  \"topicInfo\": [\n"
                             "    {\"topic\": \"a\"},\n"
                             "    {\"priority\": -1, \"topic\": \"b\"}\n"
                             "  ]\n"
                             "}\n";

    EXPECT_EQ(MistakesIn(text), "web.json:4:18: topicInfo[1].priority: must be a whole number from 0 to 4294967295");
}

TEST(ConfigurationFile, PrioritiesMustBeWholeNumbersInRange)
{
    const std::string wrong = ": topicInfo[0].priority: must be a whole number from 0 to 4294967295";
    for (const std::string value : {"4294967296", "1.5", "1e3", "\"1\"", "null", "true", "[1]", "{}"})
    {
        EXPECT_EQ(MistakesIn(R"({"topicInfo": [{"topic": "a", "priority": )" + value + "}]}"), "web.json:1:43" + wrong)
            << value;
    }
}

TEST(ConfigurationFile, EveryMistakeIsReportedAtItsPlace)
{
    const std::string text = "{\"topicInfo\": [{\"topic\": 1}, 2, {}],\n"
                             " \"queueName\": [\"\", \"amq.x\", 3]}";

    EXPECT_EQ(
        MistakesIn(text), "web.json:1:26: topicInfo[0].topic: must be a string\n"
                          "web.json:1:30: topicInfo[1]: must be an object with topic and priority\n"
                          "web.json:1:33: topicInfo[2]: has no topic\n"
                          "web.json:2:16: queueName[0]: must not be empty\n"
                          "web.json:2:20: queueName[1]: must not begin with amq., the broker's own\n"
                          "web.json:2:29: queueName[2]: must be a string");
}

TEST(ConfigurationFile, ListsMustBeListsAndTheWholeAnObject)
{
    EXPECT_EQ(MistakesIn(R"({"topicInfo": {}})"), "web.json:1:15: topicInfo: must be a list of objects");
    EXPECT_EQ(MistakesIn(R"({"queue_name": "q"})"), "web.json:1:16: queue_name: must be a list of queue names");
    EXPECT_EQ(MistakesIn(" []"), "web.json:1:2: must be an object with topicInfo and queueName");
}

TEST(ConfigurationFile, AnUnknownKeyIsAnErrorWithASuggestion)
{
    EXPECT_EQ(
        MistakesIn(R"({"topicinfo": []})"), "web.json:1:2: topicinfo: is not known here: did you mean topicInfo?");
    EXPECT_EQ(
        MistakesIn(R"({"topicInfo": [{"topic": "a", "prio": 1}]})"),
        "web.json:1:31: topicInfo[0].prio: is not known here: known are topic, priority");
    EXPECT_EQ(
        MistakesIn(R"({"topicInfo": [{"topic": "a", "priorty": 1}]})"),
        "web.json:1:31: topicInfo[0].priorty: is not known here: did you mean priority?");
}

TEST(ConfigurationFile, AKeyGivenTwiceIsAnErrorInEitherSpelling)
{
    EXPECT_EQ(MistakesIn(R"({"queueName": [], "queue_name": []})"), "web.json:1:19: queue_name: is given twice");
}

TEST(ConfigurationFile, NamesMayHave255BytesAndNoMore)
{
    const std::string most(255, 'x');
    EXPECT_EQ(MistakesIn(R"({"topicInfo": [{"topic": ")" + most + R"("}], "queueName": [")" + most + R"("]})"), "");
    // 128 letters of two bytes each.
    std::string tooLong;
    for (int i = 0; i < 128; ++i)
    {
        tooLong += "\u00e4";
    }
    EXPECT_EQ(
        MistakesIn(R"({"topicInfo": [{"topic": ")" + tooLong + R"("}]})"),
        "web.json:1:26: topicInfo[0].topic: must have at most 255 bytes, has 256");
}

TEST(ConfigurationFile, SyntaxErrorsSayWhereAndWhat)
{
    const std::string comma = MistakesIn("{\n  \"queueName\": [\"a\" \"b\"]\n}");
    EXPECT_EQ(comma.rfind("web.json:2:", 0), 0U) << comma;
    EXPECT_NE(comma.find("unexpected string literal"), std::string::npos) << comma;
    const std::string cut = MistakesIn("{\"queueName\": [");
    EXPECT_EQ(cut.rfind("web.json:1:", 0), 0U) << cut;
    EXPECT_NE(cut.find("unexpected end of input"), std::string::npos) << cut;
    const std::string bytes = MistakesIn("{\"queueName\": [\"\xff\"]}");
    EXPECT_NE(bytes.find("ill-formed UTF-8"), std::string::npos) << bytes;
    EXPECT_NE(MistakesIn(""), "");
    EXPECT_NE(MistakesIn("{} {}"), "");
}

TEST(ConfigurationFile, ManyMistakesAreCountedNotListed)
{
    std::string list;
    for (int i = 0; i < 50; ++i)
    {
        list += i == 0 ? "1" : ",1";
    }

    const std::string mistakes = MistakesIn("{\"queueName\": [" + list + "]}");

    EXPECT_NE(mistakes.find("queueName[19]"), std::string::npos);
    EXPECT_EQ(mistakes.find("queueName[20]"), std::string::npos);
    EXPECT_NE(mistakes.find("\nweb.json: and 30 more mistakes"), std::string::npos);
}

TEST(ConfigurationFile, NestingIsBounded)
{
    const std::string mistakes = MistakesIn(std::string(100000, '['));

    EXPECT_EQ(mistakes, "web.json:1:65: more than 64 levels deep");
}

TEST(ConfigurationFile, AMistakeIsOneLineWhateverTheNamesHold)
{
    EXPECT_EQ(
        MistakesIn(R"({"a\n\u001b[31mb": 1})"),
        "web.json:1:2: a\\x0a\\x1b[31mb: is not known here: known are topicInfo, queueName");
}

} // namespace VtxQel
