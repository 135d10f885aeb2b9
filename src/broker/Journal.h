#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace VtxQel
{

/** What is known of a route's place on the broker. The numbers are stored: never change their meaning. */
enum class RouteState : std::uint8_t
{
    /** It is wanted; the broker has been or is about to be asked. */
    intended = 0,
    /** The broker has said that it is in place. */
    inForce = 1,
    /** It is not wanted; the broker has been or is about to be asked to remove it. */
    leaving = 2
};

/** The numbers are those of the routing registry's route types, and stored. */
enum class RouteKind : std::uint8_t
{
    queue = 1,
    topic = 2
};

/** One topic or queue of one application. */
struct RouteRecord
{
    std::string application;
    RouteKind kind = RouteKind::topic;
    /** The topic, or the queue's name. */
    std::string name;
    /** For a topic the queue that it is bound to, else empty. */
    std::string queue;
    RouteState state = RouteState::intended;

    bool operator==(const RouteRecord&) const = default;
};

/** One change: the record is written, or removed when `erase` is set (its state is ignored then). */
struct JournalChange
{
    RouteRecord record;
    bool erase = false;
};

/**
 * Journal keeps every application's routes in a file so that a fresh start knows what is on the broker: AMQP cannot
 * list bindings, and durable queues keep them.
 *
 * Changes are made before (intent) and after (result) the broker is asked, each Write in one transaction that survives
 * the death of this process at any instant. Failure does not throw: the journal is then `degraded`, says so once, and
 * the next Write replaces the whole content by the caller's snapshot, so that it is never half true. Not thread-safe:
 * the topology that owns it locks.
 */
class Journal
{
  public:
    /**
     * Opens or creates the file. A file that is not a sound journal is set aside as FILE.corrupt with a warning and a
     * new one begun. One that cannot be written, for want of room or rights, stays where it is: the journal starts
     * degraded, and Load gives what can be read.
     */
    explicit Journal(const std::string& file);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /** What the file held when it was opened, in the order of writing. */
    std::vector<RouteRecord> Load();

    /** Writes all changes or none. @return false when the journal is degraded. */
    bool Write(const std::vector<JournalChange>& changes);

    /** Removes every application's record of a topic that was being removed from this queue. */
    bool EraseLeaving(const std::string& queue, const std::string& topic);

    /** Replaces the whole content; ends a degraded state when it succeeds. */
    bool Replace(const std::vector<RouteRecord>& records);

    bool IsDegraded() const { return m_degraded; }

  private:
    struct Closer
    {
        void operator()(sqlite3* database) const;
        void operator()(sqlite3_stmt* statement) const;
    };
    using Database = std::unique_ptr<sqlite3, Closer>;
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    void BeginAnew();
    void Close();
    void Open();
    /** Whether the file is sound, by exception. @return whether it is empty yet. */
    bool Check();
    /** The number that a pragma answers. */
    int Ask(const char* pragma);
    Statement Prepare(const char* sql);
    void Execute(const char* sql);
    void Apply(const JournalChange& change);
    bool InTransaction(const std::vector<JournalChange>& changes, bool clearFirst);
    void Degrade(const std::string& why);

    std::string m_file;
    Database m_database;
    Statement m_put;
    Statement m_erase;
    Statement m_eraseLeaving;
    bool m_degraded = false;
};

} // namespace VtxQel
