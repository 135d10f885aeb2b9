#include "broker/BrokerLink.h"

#include "broker/ConnectionSource.h"
#include "broker/ConsumeLink.h"
#include "broker/FrontEndMove.h"
#include "broker/LinkState.h"
#include "broker/PublishLink.h"
#include "broker/TopologyRequest.h"
#include "common/Progress.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/thread/thread.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <utility>

#include <pthread.h>

namespace VtxQel
{

namespace asio = boost::asio;
using Kind = TopologyRequest::Kind;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

namespace
{

/** The library's decoder recurses over what others send; its depth is bounded, with a wide margin to this. */
constexpr std::size_t STACK_SIZE = std::size_t{8} << 20U;
constexpr std::size_t SETTLEMENT_BATCH = 64;
constexpr std::size_t SMALL_PUBLICATION = 4096;
constexpr std::chrono::microseconds SETTLEMENT_DELAY{500};
/** A quorum queue forgets acknowledgements that it has not worked off when their channel ends. */
constexpr Milliseconds SETTLED{100};

std::shared_ptr<TopologyRequest> MakeRequest(Kind kind, const std::string& queue)
{
    auto request = std::make_shared<TopologyRequest>();
    request->kind = kind;
    request->queue.name = queue;
    return request;
}

std::shared_ptr<TopologyRequest> MakeRequest(Kind kind, const Binding& binding)
{
    auto request = std::make_shared<TopologyRequest>();
    request->kind = kind;
    request->binding = binding;
    return request;
}

} // namespace

/** Brings the calls of other threads to the I/O thread and owns what lives there. */
class BrokerLink::Impl
{
  public:
    Impl(LinkSettings settings, LinkListener& listener) : m_settings(std::move(settings)), m_listener(listener) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { Stop(Milliseconds(0)); }

    void Start();
    void Stop(Milliseconds budget);
    using Request = std::shared_ptr<TopologyRequest>;
    struct Reply
    {
        RequestResult result;
        QueueCounts counts;
    };
    /** Hands all of them over at once and waits for every answer. */
    std::vector<Reply> Call(const std::vector<Request>& requests, Milliseconds deadline);
    RequestResult Call(const Request& request, Milliseconds deadline)
    {
        return Call(std::vector{request}, deadline).front().result;
    }
    void Settle(const DeliveryTag& tag, SettleAs as);
    /** The delivery that is answered, if it is an answer. */
    using Origin = std::optional<DeliveryTag>;
    void Publish(const Origin& origin, OutgoingMessage message, PublishCompletion done);
    /** Runs the task on the I/O thread; when that is not there, not at all: false. */
    bool Post(std::function<void()> task);
    void PauseReading(bool paused);
    FrontEndMove& Moving() { return *m_move; }
    ConsumeLink& Consuming() { return *m_consume; }
    ConnectionSource& Source() { return *m_source; }
    LinkStatus Status() const { return m_state.Get(); }

  private:
    struct Settlement
    {
        DeliveryTag tag;
        SettleAs as = SettleAs::ack;
    };
    /** What the I/O thread has been asked to do about settlements. */
    enum class Wake
    {
        none,
        /** Send them soon, together with those that come until then. */
        soon,
        now
    };
    struct NewPublication
    {
        Origin origin;
        OutgoingMessage message;
        PublishCompletion done;
        Clock::time_point deadline;
        bool overloaded = false;
    };

    void Run();
    bool HasRoom(std::size_t bytes);
    void OnPublicationEnded(std::size_t bytes);
    void CollectSettlements();
    void OnSettlements();
    void FlushSettlements();
    void DrainPublications();
    void Close(Milliseconds budget);
    void CloseAfter(Milliseconds delay);
    void CloseBoth();

    const LinkSettings m_settings;
    LinkListener& m_listener;
    LinkState m_state;
    asio::io_context m_io{1};
    asio::executor_work_guard<asio::io_context::executor_type> m_work = asio::make_work_guard(m_io);
    asio::steady_timer m_stopTimer{m_io};
    asio::steady_timer m_settlementTimer{m_io};
    std::unique_ptr<ConnectionSource> m_source;
    std::unique_ptr<ConsumeLink> m_consume;
    std::unique_ptr<PublishLink> m_publish;
    std::unique_ptr<FrontEndMove> m_move;
    boost::thread m_thread;
    int m_openLinks = 2;
    bool m_closing = false;

    std::atomic<bool> m_readingPaused{false};
    std::atomic<std::size_t> m_unconfirmed{0};
    std::atomic<std::size_t> m_unconfirmedBytes{0};

    std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below. */
    bool m_running = false;
    std::vector<Settlement> m_settlements;
    Wake m_settlementWake = Wake::none;
    std::vector<NewPublication> m_publications;
    /** Held while stopping: a second caller waits until the first is done. */
    std::mutex m_stopMutex;
};

void BrokerLink::Impl::Start()
{
    m_source = std::make_unique<ConnectionSource>(m_io, m_settings, m_state);
    m_consume = std::make_unique<ConsumeLink>(m_io, *m_source, m_listener, m_state);
    m_publish = std::make_unique<PublishLink>(
        m_io, *m_source, m_state, [this](std::size_t bytes) { OnPublicationEnded(bytes); });
    m_publish->SetPreferredUrl([this] { return m_consume->UrlIndex(); });
    m_publish->SetOnBlocked([this](bool blocked) { m_listener.OnBlocked(blocked); });
    m_consume->SetCollector([this] { CollectSettlements(); });
    m_consume->SetOnOpen([this] { m_publish->Hurry(); });
    m_move = std::make_unique<FrontEndMove>(
        m_io, *m_source, m_listener, m_state,
        FrontEndMove::Links{*m_consume, *m_publish, [this](std::size_t bytes) { OnPublicationEnded(bytes); }});
    asio::post(m_io, [this] { m_consume->Start(); });
    {
        const std::lock_guard lock(m_mutex);
        m_running = true;
    }
    boost::thread::attributes attributes;
    attributes.set_stack_size(STACK_SIZE);
    m_thread = boost::thread(attributes, [this] { Run(); });
}

void BrokerLink::Impl::Run()
{
    pthread_setname_np(pthread_self(), "qel-link");
    m_io.run();
    // Nobody posts any more from here on; what was posted before is answered.
    {
        const std::lock_guard lock(m_mutex);
        m_running = false;
    }
    m_io.restart();
    m_io.poll();
}

bool BrokerLink::Impl::Post(std::function<void()> task)
{
    const std::lock_guard lock(m_mutex);
    if (m_running)
    {
        asio::post(m_io, std::move(task));
    }
    return m_running;
}

/** What the I/O thread posts it does after what others have posted meanwhile, so only the last word may count. */
void BrokerLink::Impl::PauseReading(bool paused)
{
    m_readingPaused = paused;
    Post([this] { m_consume->PauseReading(m_readingPaused); });
}

std::vector<BrokerLink::Impl::Reply> BrokerLink::Impl::Call(const std::vector<Request>& requests, Milliseconds deadline)
{
    std::vector<std::promise<Reply>> promises(requests.size());
    for (std::size_t index = 0; index < requests.size(); ++index)
    {
        requests[index]->deadline = Clock::now() + deadline;
        requests[index]->done = [&promise = promises[index]](const RequestResult& result, const QueueCounts& counts) {
            promise.set_value({result, counts});
        };
    }
    const auto submit = [this, requests]
    {
        for (const Request& request : requests)
        {
            m_consume->Submit(request);
        }
    };
    if (!Post(submit))
    {
        const RequestResult closed{Answer::unanswered, 0, "the connection to the broker is closed"};
        return std::vector<Reply>(requests.size(), {closed, {}});
    }
    std::vector<Reply> replies;
    replies.reserve(promises.size());
    for (std::promise<Reply>& promise : promises)
    {
        replies.push_back(promise.get_future().get());
        Progress::Note();
    }
    return replies;
}

void BrokerLink::Impl::Settle(const DeliveryTag& tag, SettleAs as)
{
    const std::lock_guard lock(m_mutex);
    if (!m_running)
    {
        return;
    }
    m_settlements.push_back({tag, as});
    if (m_settlementWake == Wake::none)
    {
        m_settlementWake = Wake::soon;
        asio::post(m_io, [this] { OnSettlements(); });
    }
    else if (m_settlementWake == Wake::soon && m_settlements.size() >= SETTLEMENT_BATCH)
    {
        m_settlementWake = Wake::now;
        asio::post(m_io, [this] { FlushSettlements(); });
    }
}

/** Waits a moment for more: the broker is much quicker with one acknowledgement of many than with many of one. */
void BrokerLink::Impl::OnSettlements()
{
    CollectSettlements();
    if (m_consume->IsStarving())
    {
        FlushSettlements();
        return;
    }
    m_settlementTimer.expires_after(SETTLEMENT_DELAY);
    m_settlementTimer.async_wait(
        [this](const boost::system::error_code& error)
        {
            if (!error)
            {
                FlushSettlements();
            }
        });
}

void BrokerLink::Impl::FlushSettlements()
{
    {
        const std::lock_guard lock(m_mutex);
        m_settlementWake = Wake::none;
    }
    m_consume->FlushSettlements();
}

void BrokerLink::Impl::CollectSettlements()
{
    std::vector<Settlement> settlements;
    {
        const std::lock_guard lock(m_mutex);
        settlements.swap(m_settlements);
    }
    for (const Settlement& settlement : settlements)
    {
        m_consume->Settle(settlement.tag, settlement.as);
    }
}

bool BrokerLink::Impl::HasRoom(std::size_t bytes)
{
    const std::size_t count = m_unconfirmed.fetch_add(1);
    const std::size_t total = m_unconfirmedBytes.fetch_add(bytes);
    // One message of any size always fits, or a large one could never be sent. So do small ones, which their number
    // bounds: the answer to a ping has not to wait until a large message is confirmed.
    if (count < m_settings.maxUnconfirmed &&
        (count == 0 || bytes <= SMALL_PUBLICATION || total + bytes <= m_settings.maxUnconfirmedBytes))
    {
        return true;
    }
    OnPublicationEnded(bytes);
    return false;
}

void BrokerLink::Impl::OnPublicationEnded(std::size_t bytes)
{
    m_unconfirmed.fetch_sub(1);
    m_unconfirmedBytes.fetch_sub(bytes);
}

void BrokerLink::Impl::Publish(const Origin& origin, OutgoingMessage message, PublishCompletion done)
{
    const bool overloaded = !HasRoom(PublishLink::SizeOf(message));
    const auto deadline = Clock::now() + message.deadline;
    if (overloaded)
    {
        message = {};
    }
    {
        const std::lock_guard lock(m_mutex);
        if (m_running)
        {
            m_publications.push_back({origin, std::move(message), std::move(done), deadline, overloaded});
            if (m_publications.size() == 1)
            {
                asio::post(m_io, [this] { DrainPublications(); });
            }
            return;
        }
    }
    // There is no I/O thread, before the start or after the end.
    if (!overloaded)
    {
        OnPublicationEnded(PublishLink::SizeOf(message));
    }
    done(PublishResult::timedOut, "the connection to the broker is closed");
}

void BrokerLink::Impl::DrainPublications()
{
    std::vector<NewPublication> publications;
    {
        const std::lock_guard lock(m_mutex);
        publications.swap(m_publications);
    }
    for (NewPublication& each : publications)
    {
        if (each.overloaded)
        {
            each.done(PublishResult::overloaded, "too many messages wait for the broker");
        }
        else
        {
            m_move->PublisherFor(each.origin).Publish(std::move(each.message), std::move(each.done), each.deadline);
        }
    }
}

void BrokerLink::Impl::Stop(Milliseconds budget)
{
    const std::lock_guard stopping(m_stopMutex);
    Post([this, budget] { Close(budget); });
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

/** Waits for what is on its way at most for the budget, then closes both connections. */
void BrokerLink::Impl::Close(Milliseconds budget)
{
    m_move->Stop();
    m_consume->FlushSettlements();
    DrainPublications();
    CloseAfter(budget);
    m_publish->WhenIdle([this, budget] { CloseAfter(std::min(budget, SETTLED)); });
}

void BrokerLink::Impl::CloseAfter(Milliseconds delay)
{
    m_stopTimer.expires_after(delay);
    m_stopTimer.async_wait(
        [this](const boost::system::error_code& error)
        {
            if (!error)
            {
                CloseBoth();
            }
        });
}

void BrokerLink::Impl::CloseBoth()
{
    if (std::exchange(m_closing, true))
    {
        return;
    }
    DrainPublications();
    m_move->Close();
    const auto closed = [this]
    {
        if (--m_openLinks == 0)
        {
            m_work.reset();
            m_io.stop();
        }
    };
    m_consume->Stop(closed);
    m_publish->Stop(closed);
}

BrokerLink::BrokerLink(LinkSettings settings, LinkListener& listener)
    : m_impl(std::make_unique<Impl>(std::move(settings), listener))
{
}

BrokerLink::~BrokerLink() = default;

void BrokerLink::Start()
{
    m_impl->Start();
}

void BrokerLink::StopConsuming()
{
    m_impl->Post(
        [this]
        {
            m_impl->Consuming().StopConsuming();
            m_impl->Moving().Stop();
        });
}

void BrokerLink::Stop(std::chrono::milliseconds budget)
{
    m_impl->Stop(budget);
}

std::vector<RequestResult> BrokerLink::Bind(const std::vector<Binding>& bindings, std::chrono::milliseconds deadline)
{
    std::vector<Impl::Request> requests;
    requests.reserve(bindings.size());
    for (const Binding& binding : bindings)
    {
        requests.push_back(MakeRequest(Kind::bind, binding));
    }
    std::vector<RequestResult> results;
    results.reserve(bindings.size());
    for (Impl::Reply& reply : m_impl->Call(requests, deadline))
    {
        results.push_back(std::move(reply.result));
    }
    return results;
}

RequestResult BrokerLink::Unbind(const Binding& binding, std::chrono::milliseconds deadline)
{
    return m_impl->Call(MakeRequest(Kind::unbind, binding), deadline);
}

RequestResult BrokerLink::DeclareExchange(const ExchangeSpec& exchange, std::chrono::milliseconds deadline)
{
    const auto request = MakeRequest(Kind::declareExchange, std::string());
    request->exchange = exchange;
    return m_impl->Call(request, deadline);
}

RequestResult BrokerLink::DeclareQueue(const QueueSpec& queue, std::chrono::milliseconds deadline)
{
    const auto request = MakeRequest(Kind::declareQueue, queue.name);
    request->queue = queue;
    return m_impl->Call(request, deadline);
}

RequestResult BrokerLink::CancelQueue(const std::string& queue, std::chrono::milliseconds deadline)
{
    return m_impl->Call(MakeRequest(Kind::cancelQueue, queue), deadline);
}

RequestResult BrokerLink::ReleaseQueue(const std::string& queue, std::chrono::milliseconds deadline)
{
    return m_impl->Call(MakeRequest(Kind::releaseQueue, queue), deadline);
}

RequestResult BrokerLink::CountMessages(
    const std::string& queue, std::chrono::milliseconds deadline, QueueCounts& counts)
{
    const Impl::Reply reply = m_impl->Call(std::vector{MakeRequest(Kind::countMessages, queue)}, deadline).front();
    if (reply.result.answer == Answer::ok)
    {
        counts = reply.counts;
    }
    return reply.result;
}

void BrokerLink::Settle(const DeliveryTag& tag, SettleAs as)
{
    m_impl->Settle(tag, as);
}

void BrokerLink::Publish(OutgoingMessage message, PublishCompletion completion)
{
    m_impl->Publish(std::nullopt, std::move(message), std::move(completion));
}

void BrokerLink::PublishBack(const IncomingMessage& to, OutgoingMessage message, PublishCompletion completion)
{
    m_impl->Publish(to.tag, std::move(message), std::move(completion));
}

void BrokerLink::PauseReading(bool paused)
{
    m_impl->PauseReading(paused);
}

void BrokerLink::MoveTo(std::size_t urlIndex)
{
    m_impl->Post([this, urlIndex] { m_impl->Moving().Begin(urlIndex); });
}

void BrokerLink::ReloadTls(const TlsFiles& files)
{
    m_impl->Post([this, files] { m_impl->Source().UseTls(files); });
}

void BrokerLink::UsePassword(const std::string& password)
{
    m_impl->Post([this, password] { m_impl->Source().UsePassword(password); });
}

void BrokerLink::Post(std::function<void()> task)
{
    m_impl->Post(std::move(task));
}

void BrokerLink::Reconnect(const std::string& why)
{
    m_impl->Post([this, why] { m_impl->Consuming().Reconnect(why); });
}

LinkStatus BrokerLink::Status() const
{
    return m_impl->Status();
}

} // namespace VtxQel
