#pragma once

#include "common/MsgHandler.h"

#include <functional>
#include <utility>

namespace VtxQel::Fakes
{

/** A handler that takes every message; calls back when it is destroyed. */
class FakeMsgHandler : public MsgHandler
{
  public:
    FakeMsgHandler() = default;
    explicit FakeMsgHandler(std::function<void()> onDestruction) : m_onDestruction(std::move(onDestruction)) {}
    FakeMsgHandler(const FakeMsgHandler&) = delete;
    FakeMsgHandler& operator=(const FakeMsgHandler&) = delete;
    ~FakeMsgHandler() override
    {
        if (m_onDestruction)
        {
            m_onDestruction();
        }
    }

    bool Callback(boost::shared_ptr<RmqMessage> /*msg*/) override { return true; }

  private:
    std::function<void()> m_onDestruction;
};

} // namespace VtxQel::Fakes
