#include "broker/FrontEndMove.h"

#include "logging/Log.h"

#include <boost/asio/post.hpp>

#include <utility>

namespace VtxQel
{

namespace
{

/** How long the broker that is left may take to cancel consumers and confirm publications; nothing comes meanwhile. */
constexpr std::chrono::milliseconds QUIESCE_PATIENCE{500};

} // namespace

FrontEndMove::FrontEndMove(
    boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, LinkState& state, Links links)
    : m_io(io), m_source(source), m_listener(listener), m_state(state), m_links(std::move(links)), m_patience(io)
{
    m_links.consume.SetMoveEvents(
        {[this] { Fail("the present connection is lost"); },
         [this]
         {
             ForgetFormer();
             m_links.publish.Move();
         },
         [this] { ForgetFormer(); }});
}

void FrontEndMove::Begin(std::size_t urlIndex)
{
    if (m_stopped || urlIndex >= m_source.UrlCount())
    {
        return;
    }
    const std::string url = m_source.Url(urlIndex).Printable();
    if (m_trial || m_links.consume.Leaving() != nullptr)
    {
        QEL_LOG(vtx::LevelStatus, "Not moving to the broker %s: another move is not finished", url.c_str());
        return;
    }
    if (!m_links.consume.IsServing())
    {
        m_links.consume.GoTo(urlIndex);
        m_links.publish.Move();
        return;
    }
    QEL_LOG(vtx::LevelStatus, "Moving to the broker %s", url.c_str());
    ++m_number;
    m_urlIndex = urlIndex;
    m_began = std::chrono::steady_clock::now();
    m_links.consume.BeginMove();
    m_trial = std::make_shared<MoveTrial>(
        m_io, m_source, m_listener, MoveTrial::Plan{urlIndex, m_links.publish.IsInUse(), m_links.consume.Lacking()},
        [this, number = m_number](const std::string& why)
        {
            // One that was given up lives until its end is handled, and may be done before that.
            if (m_trial && number == m_number)
            {
                OnTrial(why);
            }
        });
    m_trial->Start();
}

void FrontEndMove::OnTrial(const std::string& why)
{
    if (why.empty())
    {
        Quiesce();
    }
    else
    {
        Fail(why);
    }
}

void FrontEndMove::Quiesce()
{
    m_restless = 2;
    // Not at once: the call may come from a connection that is about to be left.
    const auto quiet = [this, number = m_number] { boost::asio::post(m_io, [this, number] { OnQuiet(number); }); };
    m_patience.expires_after(QUIESCE_PATIENCE);
    m_patience.async_wait(
        [this, number = m_number](const boost::system::error_code& error)
        {
            if (!error && m_restless > 0 && number == m_number)
            {
                Switch();
            }
        });
    m_links.publish.Quiesce(quiet);
    m_links.consume.Quiesce(quiet);
}

void FrontEndMove::OnQuiet(std::uint64_t number)
{
    if (m_restless > 0 && number == m_number && --m_restless == 0)
    {
        Switch();
    }
}

void FrontEndMove::Switch()
{
    m_patience.cancel();
    m_restless = 0;
    MoveTrial::Result made = m_trial->Take();
    Forget();
    m_links.consume.SwitchTo(m_urlIndex, made);
    m_links.publish.SwitchTo(m_urlIndex, std::move(made.publishing));
    m_state.Update([](LinkStatus& status) { ++status.moves; });
    const LeavingConnection* leaving = m_links.consume.Leaving();
    QEL_LOG(
        vtx::LevelStatus,
        "Moved to the broker %s in %.3f s; %zu deliveries are still to be settled where they came from",
        m_source.Url(m_urlIndex).Printable().c_str(),
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_began).count(),
        leaving == nullptr ? std::size_t{0} : leaving->Unsettled());
}

void FrontEndMove::Fail(const std::string& why)
{
    m_state.Update(
        [&](LinkStatus& status)
        {
            ++status.failedMoves;
            status.lastMoveError = why;
        });
    QEL_LOG(
        vtx::LevelWarning, "Not moving to the broker %s: %s", m_source.Url(m_urlIndex).Printable().c_str(),
        why.c_str());
    GoOnAsBefore();
}

void FrontEndMove::GoOnAsBefore()
{
    m_patience.cancel();
    m_restless = 0;
    Forget();
    m_links.publish.GoOn();
    m_links.consume.CancelMove();
}

/** Not at once: the call may come from the trial. */
void FrontEndMove::Forget()
{
    boost::asio::post(m_io, [trial = std::exchange(m_trial, nullptr)] {});
}

PublishLink& FrontEndMove::PublisherFor(const std::optional<DeliveryTag>& delivery)
{
    const LeavingConnection* leaving = m_links.consume.Leaving();
    if (!delivery || m_closed || leaving == nullptr || !leaving->HasDelivered(*delivery))
    {
        return m_links.publish;
    }
    if (!m_former)
    {
        m_former = std::make_shared<PublishLink>(m_io, m_source, m_formerState, m_links.onPublicationEnded);
        m_former->SetPreferredUrl([urlIndex = leaving->UrlIndex()] { return urlIndex; });
    }
    return *m_former;
}

void FrontEndMove::ForgetFormer()
{
    if (const auto former = std::exchange(m_former, nullptr))
    {
        m_closing.insert(former);
        // Kept until the last of its timers has heard that it is cancelled.
        former->Stop([this, weak = std::weak_ptr(former)]
                     { boost::asio::post(m_io, [this, weak] { m_closing.erase(weak.lock()); }); });
    }
}

void FrontEndMove::Stop()
{
    m_stopped = true;
    if (m_trial)
    {
        GoOnAsBefore();
    }
}

void FrontEndMove::Close()
{
    m_closed = true;
    ForgetFormer();
}

} // namespace VtxQel
