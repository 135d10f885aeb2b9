#pragma once

#include "common/RmqClient.h"
#include "fakes/Answers.h"

#include <string>

namespace VtxQel::Fakes
{

/** A broker client that does nothing but note calls and answer as told. */
class FakeRmqClient : public RmqClient
{
  public:
    explicit FakeRmqClient(Journal& journal) : answers(journal) {}

    bool CancelQueue(const std::string& queue) override { return answers.To("broker.CancelQueue(" + queue + ")"); }
    bool DeclareQueue(const std::string& queue) override { return answers.To("broker.DeclareQueue(" + queue + ")"); }
    bool SendPingReply(
        const std::string& exchange, const std::string& replyTo, const std::string& correlationId) override
    {
        return answers.To("broker.SendPingReply(" + exchange + ", " + replyTo + ", " + correlationId + ")");
    }
    bool BindTopic(const std::string& queue, const std::string& exchange, const std::string& topic) override
    {
        return answers.To("broker.BindTopic(" + queue + ", " + exchange + ", " + topic + ")");
    }
    bool UnbindTopic(const std::string& clientQueue, const std::string& exchange, const std::string& topic) override
    {
        return answers.To("broker.UnbindTopic(" + clientQueue + ", " + exchange + ", " + topic + ")");
    }

    Answers answers;
};

} // namespace VtxQel::Fakes
