#pragma once

#include "common/RmqMessage.h"
#include "fakes/Answers.h"

#include <boost/make_shared.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace VtxQel::Fakes
{

/** A message with fields that a test sets; notes "message.GetBody()" and so on. */
class FakeRmqMessage : public RmqMessage
{
  public:
    explicit FakeRmqMessage(Journal& journal, std::string type = "", std::string body = "")
        : answers(journal), bodyBytes(std::move(body))
    {
        properties->type = std::move(type);
    }

    boost::shared_ptr<RmqBody> GetBody() const override
    {
        answers.To("message.GetBody()");
        auto body = boost::make_shared<RmqBody>();
        // Only the pointer is to be used: the length is a lie.
        body->length = 1;
        body->bytes = reinterpret_cast<const std::uint8_t*>(bodyBytes.data());
        lastBody = body;
        return body;
    }
    std::size_t GetBodyLength() const override
    {
        answers.To("message.GetBodyLength()");
        return length.value_or(bodyBytes.size());
    }
    const std::string& GetAppName() const override
    {
        answers.To("message.GetAppName()");
        return appName;
    }
    boost::shared_ptr<RmqProperties> GetProperties() const override
    {
        answers.To("message.GetProperties()");
        auto copy = boost::make_shared<RmqProperties>(*properties);
        lastProperties = copy;
        return copy;
    }
    std::string ToString() const override
    {
        answers.To("message.ToString()");
        return printable;
    }

    mutable Answers answers;
    boost::shared_ptr<RmqProperties> properties = boost::make_shared<RmqProperties>();
    std::string appName = "app";
    std::string printable = "a message";
    std::string bodyBytes;
    /** What GetBodyLength says instead of the body's size. */
    std::optional<std::size_t> length;
    /** What was handed out last: expired when nobody holds it any more. */
    mutable boost::weak_ptr<RmqBody> lastBody;
    mutable boost::weak_ptr<RmqProperties> lastProperties;
};

} // namespace VtxQel::Fakes
