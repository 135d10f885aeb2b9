#pragma once

#include "common/Delivery.h"
#include "common/Turn.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace VtxQel
{

/** One message on its way to an attached instance. */
struct SessionDelivery
{
    /** Names the delivery in its verdict; unique within the session. */
    std::uint64_t id = 0;
    boost::shared_ptr<Delivery> message;
    std::uint32_t tries = 0;
    bool redelivered = false;
};

/** Why a session is ended from our side. */
enum class SessionEnd
{
    /** The instance broke a rule. */
    invalid,
    /** The instance did not answer in time. */
    overdue,
    /** The agent stops, or the application is no longer configured. */
    unavailable,
    /** The instance wanted to go and has answered everything. */
    finished
};

/**
 * An attached instance of an application, as the application sees it. Any thread may call; nothing blocks.
 */
class ApplicationSession : public Turn::Task
{
  public:
    void OnTurnEnd() final { Flush(); }

    /** Enqueues a delivery. Called with the application's lock held: must not call the application. */
    virtual void Enqueue(SessionDelivery delivery) = 0;
    /**
     * Takes back what is enqueued and not sent yet. Called with the application's lock held, as Enqueue() is.
     * @return the ids of those deliveries.
     */
    virtual std::vector<std::uint64_t> Recall() = 0;
    /** Starts sending what is enqueued, when nothing is being sent. Called without the lock. */
    virtual void Flush() = 0;
    /** Ends the session; the application has forgotten it already. Called without the lock. */
    virtual void End(SessionEnd why, const std::string& text) = 0;
    /** The name the instance gave itself, for logs. */
    virtual const std::string& Instance() const = 0;
};

} // namespace VtxQel
