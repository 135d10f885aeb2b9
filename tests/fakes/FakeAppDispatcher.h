#pragma once

#include "common/AppDispatcher.h"
#include "fakes/Answers.h"

#include <boost/weak_ptr.hpp>

#include <string>

namespace VtxQel::Fakes
{

/** Notes "dispatcher.Dispatch()" and remembers how many references to the message there were at that moment. */
class FakeAppDispatcher : public AppDispatcher
{
  public:
    explicit FakeAppDispatcher(Journal& journal) : answers(journal) {}

    bool Dispatch(boost::shared_ptr<RmqMessage> msg) override
    {
        lastMessage = msg;
        lastUseCount = msg.use_count();
        return answers.To("dispatcher.Dispatch()");
    }

    Answers answers;
    boost::weak_ptr<RmqMessage> lastMessage;
    long lastUseCount = 0;
};

} // namespace VtxQel::Fakes
