#pragma once

#include "broker/ConsumeLink.h"
#include "broker/MoveTrial.h"
#include "broker/PublishLink.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace VtxQel
{

/**
 * FrontEndMove takes both links to another front end, make before break.
 *
 * A MoveTrial makes everything there; only then are the present consumers cancelled and the publications on their way
 * confirmed, both within a bound, and the links go over. Whatever fails before that is logged, and the links stay where
 * they are. One move at a time; another one begins only when the connection that the last one left is drained. When
 * nothing is consumed anyway, the links just go there. Lives on the I/O thread.
 */
class FrontEndMove
{
  public:
    struct Links
    {
        ConsumeLink& consume;
        PublishLink& publish;
        PublishLink::OnEnded onPublicationEnded;
    };

    FrontEndMove(
        boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, LinkState& state, Links links);

    void Begin(std::size_t urlIndex);
    /**
     * Where to publish what answers a delivery: to the front end that it came from, as long as that is being left,
     * since the answer's queue may be there alone. @param delivery nothing for what answers none
     */
    PublishLink& PublisherFor(const std::optional<DeliveryTag>& delivery);
    /** Gives up a move that is under way; there are no more. */
    void Stop();
    /** Ends what is on its way to the front end that is being left; nothing more is published there. */
    void Close();

  private:
    void OnTrial(const std::string& why);
    void Quiesce();
    void OnQuiet(std::uint64_t number);
    void Switch();
    void Fail(const std::string& why);
    void GoOnAsBefore();
    void Forget();
    void ForgetFormer();

    boost::asio::io_context& m_io;
    ConnectionSource& m_source;
    LinkListener& m_listener;
    LinkState& m_state;
    const Links m_links;
    std::shared_ptr<MoveTrial> m_trial;
    /** Tells what was meant for an earlier move. */
    std::uint64_t m_number = 0;
    std::size_t m_urlIndex = 0;
    std::chrono::steady_clock::time_point m_began;
    boost::asio::steady_timer m_patience;
    /** What is still waited for before the links go over. */
    int m_restless = 0;
    bool m_stopped = false;
    bool m_closed = false;
    /** Publishes to the front end that is being left; made when something is to be published there. */
    std::shared_ptr<PublishLink> m_former;
    /** Those that are being closed. */
    std::set<std::shared_ptr<PublishLink>> m_closing;
    LinkState m_formerState;
};

} // namespace VtxQel
