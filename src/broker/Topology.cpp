#include "broker/Topology.h"

#include "common/QelException.h"
#include "common/SFormat.h"
#include "logging/Log.h"

#include <algorithm>

namespace VtxQel
{

namespace
{

bool Contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

Topology::Topology(TopologyPort& port, Journal& journal, const RmqInfo& info)
    : m_port(port), m_journal(journal), m_info(info), m_parkingPrefix(info.clientQueue + ".parked.")
{
}

std::vector<RouteRecord> Topology::Restore(const std::function<bool(const std::string& application)>& isKnown)
{
    const std::lock_guard lock(m_mutex);
    std::vector<RouteRecord> inUse;
    std::vector<JournalChange> changes;
    for (const RouteRecord& record : m_journal.Load())
    {
        const bool wanted = record.state != RouteState::leaving && isKnown(record.application);
        const Binding binding{record.queue, m_info.exchange, record.name};
        if (wanted && record.kind == RouteKind::topic)
        {
            Use& use = m_bindings[binding];
            use.users.push_back(record.application);
            use.state = record.state;
            m_routes[record.application].bindings.insert(binding);
        }
        else if (wanted)
        {
            m_queues[record.name] = Use{{record.application}, record.state};
            m_routes[record.application].queues.insert(record.name);
        }
        else if (record.kind == RouteKind::topic)
        {
            const auto [place, added] = m_bindings.try_emplace(binding);
            place->second.state = added ? RouteState::leaving : place->second.state;
            // Without it an application of this name would have the route back some day.
            changes.push_back({record});
            changes.back().record.state = RouteState::leaving;
        }
        else
        {
            // Consumers ended with the process that had them.
            changes.push_back({record, true});
        }
        if (wanted)
        {
            inUse.push_back(record);
        }
    }
    for (JournalChange& change : changes)
    {
        const auto place = m_bindings.find({change.record.queue, m_info.exchange, change.record.name});
        change.erase = change.erase || !place->second.users.empty();
    }
    m_journal.Write(changes);
    return inUse;
}

void Topology::Begin(const std::string& application, const std::vector<RouteRecord>& wanted)
{
    Frame frame;
    frame.application = application;
    frame.turn = std::unique_lock(m_turn);

    const std::lock_guard lock(m_mutex);
    const Routes& has = m_routes[application];
    m_frame = std::move(frame);
    std::vector<JournalChange> intents;
    for (const RouteRecord& route : wanted)
    {
        if (route.kind == RouteKind::topic)
        {
            const Binding binding{route.queue, m_info.exchange, route.name};
            const auto [place, isNew] = m_frame->wanted.bindings.insert(binding);
            if (isNew && !has.bindings.contains(binding))
            {
                intents.push_back({Record(binding, RouteState::intended)});
            }
            if (isNew)
            {
                m_frame->next.push_back(&*place);
            }
        }
        else if (m_frame->wanted.queues.insert(route.name).second && !has.queues.contains(route.name))
        {
            intents.push_back({Record(route.name, RouteState::intended)});
        }
    }
    const Routes gone = Unwanted();
    for (const Binding& binding : gone.bindings)
    {
        intents.push_back({Record(binding, RouteState::leaving)});
    }
    for (const std::string& queue : gone.queues)
    {
        intents.push_back({Record(queue, RouteState::leaving)});
    }
    RepairJournal();
    Note(intents);
}

void Topology::Withdraw()
{
    const std::lock_guard lock(m_mutex);
    if (m_frame)
    {
        m_frame->withdrawn = true;
    }
}

bool Topology::End()
{
    Routes leftovers;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_frame)
        {
            return true;
        }
        leftovers = m_frozen ? Routes() : Unwanted();
    }
    bool clean = true;
    bool answers = true;
    for (const Binding& binding : leftovers.bindings)
    {
        if (Leave(binding))
        {
            // A broker that does not answer for one is not waited for at each of the others: they are orphans.
            const Answer answer = answers ? RemoveOrWarn(binding) : Answer::unanswered;
            answers = answer != Answer::unanswered;
            clean = clean && answer == Answer::ok;
        }
    }
    for (const std::string& queue : leftovers.queues)
    {
        clean = Cancel(queue) && clean;
    }

    const std::lock_guard lock(m_mutex);
    if (m_frame->withdrawn && !m_frozen)
    {
        std::vector<JournalChange> forgotten;
        for (const Binding& binding : m_frame->wanted.bindings)
        {
            // What could not be unbound stays in the journal as an orphan.
            if (!m_bindings.contains(binding) || !m_bindings[binding].users.empty())
            {
                forgotten.push_back({Record(binding, RouteState::leaving), true});
            }
        }
        for (const std::string& queue : m_frame->wanted.queues)
        {
            forgotten.push_back({Record(queue, RouteState::leaving), true});
        }
        m_journal.Write(forgotten);
    }
    RepairJournal();
    m_frame.reset();
    return clean;
}

bool Topology::Bind(const Binding& binding)
{
    std::vector<Binding> asked;
    {
        const std::lock_guard lock(m_mutex);
        CheckNotFrozen();
        if (IsReserved(binding.topic))
        {
            QEL_LOG(
                vtx::LevelWarning, "topic %s is the name of a queue of the agent's own; the configuration is refused",
                binding.topic.c_str());
            return false;
        }
        if (m_frame && m_frame->refused.contains(binding))
        {
            return false;
        }
        if (IsInForce(binding))
        {
            if (!m_frame || !Contains(m_bindings[binding].users, m_frame->application))
            {
                AddUser(binding);
                Note(Record(binding, RouteState::inForce));
            }
            return true;
        }
        asked = Claim(binding);
    }
    const std::vector<RequestResult> answers = m_port.Bind(asked);

    const std::lock_guard lock(m_mutex);
    Take(asked, answers);
    const RequestResult& own = answers.front();
    if (own.answer == Answer::unanswered)
    {
        throw RmqConnectionException(SFormat(
            "No answer to the bind of topic %s to queue %s: %s", binding.topic.c_str(), binding.queue.c_str(),
            own.text.c_str()));
    }
    return own.answer == Answer::ok;
}

bool Topology::Unbind(const Binding& binding)
{
    return !Leave(binding) || RemoveOrWarn(binding) == Answer::ok;
}

/** The application does not use the binding any more. @return whether it has to be removed, since nobody does */
bool Topology::Leave(const Binding& binding)
{
    const std::lock_guard lock(m_mutex);
    if (m_frozen || IsWanted(binding))
    {
        return false;
    }
    if (!DropUser(binding))
    {
        Note(Record(binding, RouteState::leaving), true);
        return false;
    }
    m_bindings[binding].state = RouteState::leaving;
    Note(Record(binding, RouteState::leaving));
    return true;
}

bool Topology::Declare(const std::string& queue)
{
    {
        const std::lock_guard lock(m_mutex);
        CheckNotFrozen();
        const auto known = m_queues.find(queue);
        const bool mine = known != m_queues.end() && m_frame && Contains(known->second.users, m_frame->application);
        if (IsReserved(queue) || (known != m_queues.end() && !mine))
        {
            const std::string owner = known == m_queues.end() ? "the agent" : known->second.users.front();
            QEL_LOG(
                vtx::LevelWarning, "queue %s belongs to %s; the configuration is refused", queue.c_str(),
                owner.c_str());
            return false;
        }
        if (mine && known->second.state == RouteState::inForce)
        {
            return true;
        }
        m_queues[queue] = Use{{m_frame ? m_frame->application : std::string()}, RouteState::intended};
        m_routes[m_frame ? m_frame->application : std::string()].queues.insert(queue);
    }
    const RequestResult result = m_port.Consume(queue);

    const std::lock_guard lock(m_mutex);
    switch (result.answer)
    {
    case Answer::ok:
        m_queues[queue].state = RouteState::inForce;
        Note(Record(queue, RouteState::inForce));
        return true;
    case Answer::refused:
        QEL_LOG(
            vtx::LevelWarning, "the broker refuses to declare or consume queue %s: %s", queue.c_str(),
            result.text.c_str());
        m_queues.erase(queue);
        m_routes[m_frame ? m_frame->application : std::string()].queues.erase(queue);
        Note(Record(queue, RouteState::leaving), true);
        return false;
    case Answer::unanswered:
        break;
    }
    throw RmqConnectionException(
        SFormat("No answer to the declaration of queue %s: %s", queue.c_str(), result.text.c_str()));
}

bool Topology::Cancel(const std::string& queue)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_frozen || IsWanted(queue))
        {
            return true;
        }
    }
    const RequestResult result = m_port.StopConsuming(queue);
    if (result.answer == Answer::refused)
    {
        return false;
    }
    // A consumer whose connection is gone is gone with it.
    const std::lock_guard lock(m_mutex);
    Note(Record(queue, RouteState::leaving), true);
    m_queues.erase(queue);
    m_routes[m_frame ? m_frame->application : std::string()].queues.erase(queue);
    return true;
}

bool Topology::RemoveOrphans()
{
    const std::lock_guard turn(m_turn);
    std::vector<Binding> orphans;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [binding, use] : m_bindings)
        {
            if (use.users.empty() && !m_frozen)
            {
                orphans.push_back(binding);
            }
        }
    }
    for (const Binding& binding : orphans)
    {
        const RequestResult result = Remove(binding);
        if (result.answer != Answer::ok)
        {
            m_warnings.Write(
                "nobody uses topic " + binding.topic + " any more, but it stays bound to queue " + binding.queue +
                ": " + result.text);
            return false;
        }
    }
    return true;
}

void Topology::Freeze()
{
    const std::lock_guard lock(m_mutex);
    m_frozen = true;
}

bool Topology::IsFrozen() const
{
    const std::lock_guard lock(m_mutex);
    return m_frozen;
}

std::vector<Binding> Topology::Bindings() const
{
    const std::lock_guard lock(m_mutex);
    std::vector<Binding> used;
    used.reserve(m_bindings.size());
    for (const auto& [binding, use] : m_bindings)
    {
        if (!use.users.empty())
        {
            used.push_back(binding);
        }
    }
    return used;
}

std::vector<std::string> Topology::Queues() const
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> names;
    for (const auto& [name, use] : m_queues)
    {
        names.push_back(name);
    }
    return names;
}

std::optional<std::string> Topology::QueueOf(const std::string& topic) const
{
    const std::lock_guard lock(m_mutex);
    for (const std::string& queue : {m_info.clientQueue, m_info.priorityQueue})
    {
        const auto place = m_bindings.find(Binding{queue, m_info.exchange, topic});
        if (place != m_bindings.end() && !place->second.users.empty())
        {
            return queue;
        }
    }
    return std::nullopt;
}

bool Topology::IsReserved(const std::string& name) const
{
    return name == m_info.clientQueue || name == m_info.priorityQueue || name == m_info.deadLetterQueue ||
           name.starts_with(m_parkingPrefix);
}

bool Topology::IsJournalDegraded() const
{
    const std::lock_guard lock(m_mutex);
    return m_journal.IsDegraded();
}

RouteCounts Topology::Counts() const
{
    const std::lock_guard lock(m_mutex);
    RouteCounts counts;
    for (const auto& [binding, use] : m_bindings)
    {
        ++counts.bindings[static_cast<std::size_t>(use.state)];
    }
    counts.queues = m_queues.size();
    return counts;
}

RoutePage Topology::Find(
    const std::string& text, std::size_t offset, std::size_t limit, const std::string& application) const
{
    struct Match
    {
        const std::string* name;
        /** None for a queue. */
        const Binding* binding;
        const Use* use;
    };
    const auto fits = [&](const std::string& name, const Use& use)
    { return (application.empty() || Contains(use.users, application)) && name.find(text) != std::string::npos; };
    const std::lock_guard lock(m_mutex);
    std::vector<Match> matches;
    for (const auto& [binding, use] : m_bindings)
    {
        if (fits(binding.topic, use))
        {
            matches.push_back({&binding.topic, &binding, &use});
        }
    }
    for (const auto& [name, use] : m_queues)
    {
        if (fits(name, use))
        {
            matches.push_back({&name, nullptr, &use});
        }
    }
    const std::size_t skipped = std::min(offset, matches.size());
    const auto first = matches.begin() + static_cast<std::ptrdiff_t>(skipped);
    const auto last = first + static_cast<std::ptrdiff_t>(std::min(limit, matches.size() - skipped));
    std::partial_sort(
        matches.begin(), last, matches.end(),
        [](const Match& left, const Match& right)
        { return *left.name != *right.name ? *left.name < *right.name : left.binding < right.binding; });
    RoutePage page{m_bindings.size() + m_queues.size(), matches.size(), {}};
    for (auto match = first; match != last; ++match)
    {
        const bool topic = match->binding != nullptr;
        page.routes.push_back(
            {topic ? RouteKind::topic : RouteKind::queue, *match->name, topic ? match->binding->queue : std::string(),
             match->use->state, match->use->users});
    }
    return page;
}

std::vector<RouteUse> Topology::BindingsWhere(const std::function<bool(const std::string& topic)>& fits) const
{
    const std::lock_guard lock(m_mutex);
    std::vector<RouteUse> fitting;
    for (const auto& [binding, use] : m_bindings)
    {
        if (fits(binding.topic))
        {
            fitting.push_back({RouteKind::topic, binding.topic, binding.queue, use.state, use.users});
        }
    }
    return fitting;
}

RouteRecord Topology::Record(const Binding& binding, RouteState state) const
{
    return {m_frame ? m_frame->application : std::string(), RouteKind::topic, binding.topic, binding.queue, state};
}

RouteRecord Topology::Record(const std::string& queue, RouteState state) const
{
    return {m_frame ? m_frame->application : std::string(), RouteKind::queue, queue, std::string(), state};
}

void Topology::Note(const RouteRecord& record, bool erase)
{
    Note({JournalChange{record, erase}});
}

void Topology::Note(const std::vector<JournalChange>& changes)
{
    if (!m_frozen)
    {
        m_journal.Write(changes);
    }
}

void Topology::RepairJournal()
{
    if (!m_journal.IsDegraded() || m_frozen)
    {
        return;
    }
    std::vector<RouteRecord> all;
    for (const auto& [binding, use] : m_bindings)
    {
        for (const std::string& user : use.users)
        {
            all.push_back({user, RouteKind::topic, binding.topic, binding.queue, use.state});
        }
        if (use.users.empty())
        {
            all.push_back({"", RouteKind::topic, binding.topic, binding.queue, RouteState::leaving});
        }
    }
    for (const auto& [name, use] : m_queues)
    {
        all.push_back({use.users.front(), RouteKind::queue, name, "", use.state});
    }
    m_journal.Replace(all);
}

bool Topology::IsWanted(const Binding& binding) const
{
    return m_frame && !m_frame->withdrawn && m_frame->wanted.bindings.contains(binding);
}

bool Topology::IsWanted(const std::string& queue) const
{
    return m_frame && !m_frame->withdrawn && m_frame->wanted.queues.contains(queue);
}

bool Topology::IsInForce(const Binding& binding) const
{
    const auto known = m_bindings.find(binding);
    return known != m_bindings.end() && known->second.state == RouteState::inForce;
}

void Topology::AddUser(const Binding& binding)
{
    const std::string user = m_frame ? m_frame->application : std::string();
    std::vector<std::string>& users = m_bindings[binding].users;
    if (!Contains(users, user))
    {
        users.push_back(user);
    }
    m_routes[user].bindings.insert(binding);
}

bool Topology::DropUser(const Binding& binding)
{
    const std::string user = m_frame ? m_frame->application : std::string();
    std::vector<std::string>& users = m_bindings[binding].users;
    std::erase(users, user);
    m_routes[user].bindings.erase(binding);
    return users.empty();
}

void Topology::CheckNotFrozen() const
{
    if (m_frozen)
    {
        throw RmqConnectionException("The agent is stopping");
    }
}

/** The binding with the next ones of the configuration that the broker has to be asked for, all of them intended. */
std::vector<Binding> Topology::Claim(const Binding& binding)
{
    std::vector<Binding> claimed{binding};
    while (m_frame && !m_frame->withdrawn && !m_frame->next.empty() && claimed.size() < MOST_AT_ONCE)
    {
        const Binding& next = *m_frame->next.front();
        m_frame->next.pop_front();
        if (next != binding && !IsInForce(next) && !IsReserved(next.topic))
        {
            claimed.push_back(next);
        }
    }
    for (const Binding& each : claimed)
    {
        m_bindings[each].state = RouteState::intended;
        AddUser(each);
    }
    return claimed;
}

/** One without an answer may be on the broker or not: it stays intended. */
void Topology::Take(const std::vector<Binding>& asked, const std::vector<RequestResult>& answers)
{
    std::vector<JournalChange> changes;
    for (std::size_t index = 0; index < asked.size(); ++index)
    {
        const Binding& binding = asked[index];
        if (answers[index].answer == Answer::ok)
        {
            m_bindings[binding].state = RouteState::inForce;
            changes.push_back({Record(binding, RouteState::inForce)});
            continue;
        }
        if (m_frame)
        {
            // The configuration will hardly come further than this one.
            m_frame->next.clear();
        }
        if (answers[index].answer == Answer::refused)
        {
            Refuse(binding, answers[index].text);
            changes.push_back({Record(binding, RouteState::leaving), true});
        }
    }
    Note(changes);
}

void Topology::Refuse(const Binding& binding, const std::string& why)
{
    QEL_LOG(
        vtx::LevelWarning, "the broker refuses to bind topic %s to queue %s: %s", binding.topic.c_str(),
        binding.queue.c_str(), why.c_str());
    if (DropUser(binding))
    {
        m_bindings.erase(binding);
    }
    if (m_frame)
    {
        m_frame->refused.insert(binding);
    }
}

RequestResult Topology::Remove(const Binding& binding)
{
    RequestResult result = m_port.Unbind(binding);
    if (result.answer == Answer::ok)
    {
        const std::lock_guard lock(m_mutex);
        m_bindings.erase(binding);
        // Whichever application had it last: the orphan's record bears that one's name.
        m_journal.EraseLeaving(binding.queue, binding.topic);
    }
    return result;
}

Answer Topology::RemoveOrWarn(const Binding& binding)
{
    const RequestResult result = Remove(binding);
    if (result.answer != Answer::ok)
    {
        QEL_LOG(
            vtx::LevelWarning, "topic %s could not be unbound from queue %s: %s", binding.topic.c_str(),
            binding.queue.c_str(), result.text.c_str());
    }
    return result.answer;
}

Topology::Routes Topology::Unwanted() const
{
    Routes unwanted;
    const auto has = m_routes.find(m_frame->application);
    if (has == m_routes.end())
    {
        return unwanted;
    }
    for (const Binding& binding : has->second.bindings)
    {
        if (!IsWanted(binding))
        {
            unwanted.bindings.insert(binding);
        }
    }
    for (const std::string& queue : has->second.queues)
    {
        if (!IsWanted(queue))
        {
            unwanted.queues.insert(queue);
        }
    }
    return unwanted;
}

} // namespace VtxQel
