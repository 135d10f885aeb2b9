#include "broker/Restoration.h"

namespace VtxQel
{

using Kind = TopologyRequest::Kind;

void Restoration::Begin(const DesiredTopology& desired)
{
    Abandon();
    m_ownQueues.clear();
    m_step = Step::exchanges;
    for (const ExchangeSpec& exchange : desired.exchanges)
    {
        Items(Step::exchanges).push_back(ToRestore(exchange));
    }
    for (const QueueSpec& queue : desired.ownQueues)
    {
        Items(Step::ownQueues).push_back(ToRestore(queue));
        m_ownQueues.insert(queue.name);
    }
    for (const Binding& binding : desired.bindings)
    {
        Items(Step::bindings).push_back(ToRestore(binding));
    }
    for (const QueueSpec& queue : desired.applicationQueues)
    {
        Items(Step::applicationQueues).push_back(ToRestore(queue));
    }
}

void Restoration::Abandon()
{
    for (auto& items : m_items)
    {
        items.clear();
    }
    m_underWay = 0;
    m_delayed = 0;
    m_delayedQueues = 0;
    m_step = Step::exchanges;
}

void Restoration::AddBindings(const DesiredTopology& desired, const std::string& queue)
{
    for (const Binding& binding : desired.bindings)
    {
        if (binding.queue == queue)
        {
            Items(Step::bindings).push_back(ToRestore(binding));
        }
    }
    if (m_step > Step::bindings)
    {
        m_step = Step::bindings;
    }
}

bool Restoration::IsGivenUp(const TopologyRequest& request) const
{
    return request.kind == Kind::bind           ? m_givenUpBindings.count(request.binding) > 0
           : request.kind == Kind::declareQueue ? m_givenUpQueues.count(request.queue.name) > 0
                                                : false;
}

Restoration::Request Restoration::Next()
{
    while (m_step != Step::done)
    {
        auto& items = Items(m_step);
        if (items.empty())
        {
            const Step before = m_step;
            Advance();
            if (m_step == before)
            {
                return nullptr;
            }
            continue;
        }
        if (m_underWay >= WINDOW)
        {
            return nullptr;
        }
        Request request = std::move(items.front());
        items.pop_front();
        if (!IsGivenUp(*request))
        {
            ++m_underWay;
            return request;
        }
    }
    return nullptr;
}

void Restoration::Advance()
{
    const bool waitsForDelayed = !IsBaseReady() || m_step == Step::applicationQueues;
    if (m_underWay > 0 || (waitsForDelayed && m_delayed > 0))
    {
        return;
    }
    m_step = static_cast<Step>(static_cast<int>(m_step) + 1);
    if (IsComplete())
    {
        m_givenUpBindings.clear();
        m_givenUpQueues.clear();
    }
}

std::size_t& Restoration::DelayedLike(const TopologyRequest& request)
{
    const bool applications = request.kind == Kind::declareQueue && !IsOwnQueue(request.queue.name);
    return applications ? m_delayedQueues : m_delayed;
}

void Restoration::Delayed(const TopologyRequest& request)
{
    --m_underWay;
    ++DelayedLike(request);
}

void Restoration::Resume(Request request)
{
    --DelayedLike(*request);
    Add(std::move(request));
}

void Restoration::Add(Request request)
{
    if (m_step == Step::done)
    {
        m_step = Step::applicationQueues;
    }
    Items(m_step).push_back(std::move(request));
}

} // namespace VtxQel
