#include "qelctl/AnswerRules.h"

#include "qelctl/Failure.h"

#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{

namespace
{

qel::Message MessageOf(const std::string& key, const std::string& type)
{
    qel::Message message;
    message.routingKey = key;
    message.properties.type = type;
    return message;
}

std::string ErrorOf(const std::string& rule)
{
    try
    {
        AnswerRules({rule});
    }
    catch (const UsageError& error)
    {
        return error.what();
    }
    return "no error";
}

} // namespace

TEST(AnswerRules, TheFirstThatFitsCounts)
{
    const AnswerRules rules({"type=order*:retry", "key=orders.*:dead", "key=#.bad:done"});
    EXPECT_EQ(rules.Find(MessageOf("orders.x", "ordered")), Answer_e::retry);
    EXPECT_EQ(rules.Find(MessageOf("orders.x", "reorder")), Answer_e::dead);
    EXPECT_EQ(rules.Find(MessageOf("orders.x.bad", "")), Answer_e::done);
    EXPECT_EQ(rules.Find(MessageOf("bad", "")), Answer_e::done);
    EXPECT_EQ(rules.Find(MessageOf("orders", "")), std::nullopt);
    EXPECT_FALSE(rules.Asks());
}

TEST(AnswerRules, EveryFieldIsLookedAt)
{
    qel::Message message;
    message.properties.appId = "a";
    message.properties.messageId = "m";
    message.queue = "q:1";
    EXPECT_EQ(AnswerRules({"app-id=a:dead"}).Find(message), Answer_e::dead);
    EXPECT_EQ(AnswerRules({"message-id=[lm]:dead"}).Find(message), Answer_e::dead);
    EXPECT_EQ(AnswerRules({"queue=q:?:dead"}).Find(message), Answer_e::dead);
    EXPECT_EQ(AnswerRules({"type=:dead"}).Find(message), Answer_e::dead) << "an empty pattern fits what is not there";
    EXPECT_TRUE(AnswerRules({"type=*:done", "app-id=a:ask"}).Asks());
}

TEST(AnswerRules, AWrongRuleIsNamedWithTheCure)
{
    EXPECT_EQ(
        ErrorOf("orders"), "--rule \"orders\": write FIELD=PATTERN:ANSWER, for example type=order*:retry or "
                           "key=#.bad:dead");
    EXPECT_EQ(
        ErrorOf("a:done=b"), "--rule \"a:done=b\": write FIELD=PATTERN:ANSWER, for example type=order*:retry or "
                             "key=#.bad:dead");
    EXPECT_EQ(ErrorOf("typ=a:done"), "--rule \"typ=a:done\": there is no field \"typ\": did you mean type?");
    EXPECT_EQ(ErrorOf("key=a:rety"), "--rule \"key=a:rety\": there is no answer \"rety\": did you mean retry?");
    EXPECT_EQ(ErrorOf("key=a:"), "--rule \"key=a:\": there is no answer \"\": known are ask, dead, done, retry");
}

} // namespace VtxQel
