#include "broker/TopologyRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace VtxQel
{

using Kind = TopologyRequest::Kind;

TEST(TopologyRequest, EveryReplyCodeHasItsMeaning)
{
    const std::string homeNode =
        "NOT_FOUND - home node 'rabbit@a' of durable queue 'q' in vhost '/' is down or inaccessible";
    const std::string exclusive = "ACCESS_REFUSED - queue 'q' in vhost '/' in exclusive use";
    const std::vector<std::tuple<Kind, int, std::string, Outcome>> rows = {
        {Kind::unbind, 403, "", Outcome::refused},
        {Kind::unbind, 405, "", Outcome::refused},
        {Kind::unbind, 404, homeNode, Outcome::transient},
        {Kind::unbind, 404, "", Outcome::transient},
        {Kind::unbind, 406, "", Outcome::transient},
        {Kind::unbind, 541, "", Outcome::transient},
        {Kind::bind, 403, "", Outcome::refused},
        {Kind::bind, 404, "NOT_FOUND - no queue 'q' in vhost '/'", Outcome::missing},
        {Kind::bind, 404, homeNode, Outcome::transient},
        {Kind::bind, 506, "", Outcome::transient},
        {Kind::declareQueue, 403, "", Outcome::refused},
        {Kind::declareQueue, 403, exclusive, Outcome::inUse},
        {Kind::declareQueue, 404, "", Outcome::refused},
        {Kind::declareQueue, 404, homeNode, Outcome::transient},
        {Kind::declareQueue, 405, "", Outcome::inUse},
        {Kind::declareQueue, 406, "", Outcome::refused},
        {Kind::countMessages, 404, "", Outcome::refused},
        {Kind::countMessages, 404, homeNode, Outcome::transient},
        {Kind::bind, 0, "connection lost", Outcome::transient},
        {Kind::bind, 320, "", Outcome::transient},
        {Kind::bind, 502, "cannot be encoded", Outcome::refused}};
    for (const auto& [kind, code, text, outcome] : rows)
    {
        const RpcReply reply{false, static_cast<std::uint16_t>(code), text, 0};
        EXPECT_EQ(Classify(kind, reply), outcome) << static_cast<int>(kind) << " " << code << " " << text;
    }
    EXPECT_EQ(Classify(Kind::unbind, {true, 0, "", 0}), Outcome::ok);
}

TEST(TopologyRequest, NamesThatCannotExistAreAnsweredWithoutTheBroker)
{
    for (const std::string& name : {std::string(256, 'n'), std::string("\xFF"), std::string("a\xC3")})
    {
        TopologyRequest request;
        request.binding = {"q", "e", name};
        request.kind = Kind::bind;
        EXPECT_EQ(AnswerWithoutBroker(request)->answer, Answer::refused);
        request.kind = Kind::unbind;
        EXPECT_EQ(AnswerWithoutBroker(request)->answer, Answer::ok);
        request.binding = {};
        request.queue.name = name;
        request.kind = Kind::declareQueue;
        EXPECT_EQ(AnswerWithoutBroker(request)->answer, Answer::refused);
        request.kind = Kind::cancelQueue;
        EXPECT_EQ(AnswerWithoutBroker(request)->answer, Answer::ok);
    }
}

TEST(TopologyRequest, NamesUpTo255BytesGoToTheBroker)
{
    TopologyRequest request;
    request.kind = Kind::unbind;
    request.binding = {"q", "", std::string(255, 'n')};
    EXPECT_FALSE(AnswerWithoutBroker(request));
    request.binding.topic = "";
    EXPECT_FALSE(AnswerWithoutBroker(request));
}

} // namespace VtxQel
