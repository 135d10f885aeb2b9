#pragma once

#include "apps/ApplicationSet.h"
#include "apps/Subscriptions.h"
#include "common/AppDispatcher.h"
#include "common/Delivery.h"

#include <boost/container/small_vector.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <list>
#include <mutex>
#include <string>

namespace VtxQel
{

/** The applications that take a message. */
struct Takers
{
    boost::container::small_vector<boost::shared_ptr<Application>, 2> applications;
    /** The message's app-id names the only one. */
    bool named = false;
    /** As in Receivers. */
    bool servedElsewhere = false;
};

/**
 * LocalAppDispatcher tells which applications a message is for and hands it to them.
 *
 * A message is for the application it was parked for, else for the one its `app-id` names, else for those that have
 * subscribed to it. When there is none but a configuration is being carried out, the message waits for a subscription
 * or for the end of the configuration; messages of one routing key stay in their order. Any thread may call. The
 * observer that the constructor adds to the subscriptions refers to the dispatcher, which therefore outlives their
 * changes.
 */
class LocalAppDispatcher : public AppDispatcher
{
  public:
    /** Both outlive the dispatcher. */
    LocalAppDispatcher(ApplicationSet& applications, Subscriptions& subscriptions);

    bool Dispatch(boost::shared_ptr<RmqMessage> msg) override;

    /** The name of the application that such a message is for: the app-id, else the first subscriber, else "". */
    std::string ApplicationFor(const std::string& queue, const std::string& routingKey, const std::string& appId) const;

    /** Whom such a message that was not parked is handed to. */
    Takers TakersOf(const std::string& queue, const std::string& routingKey, const std::string& appId) const;

    /** How many messages wait for the end of a configuration. */
    std::size_t WaitingCount() const { return m_waitingCount.load(); }
    /** Drops what waits: the broker delivers it again. */
    void Stop();

  private:
    struct Waiting
    {
        boost::shared_ptr<Delivery> message;
        /** Keeps the message from being settled until it is known whom it is for. */
        boost::shared_ptr<Receipt> receipt;
    };
    enum class Outcome
    {
        handedOver,
        servedElsewhere,
        nobody
    };

    void DispatchParked(const boost::shared_ptr<Delivery>& message);
    Outcome HandOver(const boost::shared_ptr<Delivery>& message);
    void Wait(const boost::shared_ptr<Delivery>& message);
    void OnChange(const SubscriptionChange& change);
    template <typename Concerned>
    void Redispatch(const Concerned& concerned);
    bool Resolve(Waiting& waiting);

    ApplicationSet& m_applications;
    Subscriptions& m_subscriptions;
    std::mutex m_mutex;
    /** Guarded by m_mutex, in the order of arrival. */
    std::list<Waiting> m_waiting;
    std::atomic<std::size_t> m_waitingCount{0};
};

} // namespace VtxQel
