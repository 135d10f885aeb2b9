#pragma once

#include "common/RmqMessage.h"

#include <boost/shared_ptr.hpp>

namespace VtxQel
{

/** Handles the messages that arrive under one or more routing keys. */
class MsgHandler
{
  public:
    virtual ~MsgHandler() = default;

    /** Handles one message; may be called from several threads at once. `false` refuses the message for good. */
    virtual bool Callback(boost::shared_ptr<RmqMessage> msg) = 0;
};

} // namespace VtxQel
