#pragma once

#include "common/RmqMessage.h"

#include <boost/shared_ptr.hpp>

namespace VtxQel
{

/** Hands messages to the local applications that they are for. */
class AppDispatcher
{
  public:
    virtual ~AppDispatcher() = default;

    /** Hands the message over; `false` when no application can be told. May be called from several threads at once. */
    virtual bool Dispatch(boost::shared_ptr<RmqMessage> msg) = 0;
};

} // namespace VtxQel
