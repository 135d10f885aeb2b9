#include "broker/Journal.h"

#include "logging/Log.h"

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace VtxQel
{

namespace
{

/** "qelj": tells our files from other SQLite databases. */
constexpr int APPLICATION_ID = 0x71656c6a;
/** What the schema below is called; to be counted up with it. */
constexpr int NEWEST_VERSION = 1;

const char* const SCHEMA = "PRAGMA journal_mode=WAL;"
                           "BEGIN IMMEDIATE;"
                           "CREATE TABLE IF NOT EXISTS route ("
                           " application TEXT NOT NULL, kind INTEGER NOT NULL, name BLOB NOT NULL, queue BLOB NOT NULL,"
                           " state INTEGER NOT NULL, UNIQUE (name, queue, kind, application));"
                           "PRAGMA application_id=0x71656c6a;"
                           "PRAGMA user_version=1;"
                           "COMMIT;";

/** Whether a file with which SQLite fails like this will never do as a journal; a full disk passes. */
bool IsDamage(int status)
{
    const int primary = status & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_ERROR;
}

/** A failed step of SQLite. Stays within this file. */
class JournalError : public std::runtime_error
{
  public:
    explicit JournalError(sqlite3* database)
        : std::runtime_error(sqlite3_errmsg(database)), isDamage(IsDamage(sqlite3_errcode(database)))
    {
    }
    JournalError(const std::string& text, bool damage) : std::runtime_error(text), isDamage(damage) {}

    const bool isDamage;
};

void BindBlob(sqlite3_stmt* statement, int column, const std::string& bytes)
{
    sqlite3_bind_blob64(statement, column, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

std::string ColumnBytes(sqlite3_stmt* statement, int column)
{
    const void* bytes = sqlite3_column_blob(statement, column);
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), length);
}

} // namespace

void Journal::Closer::operator()(sqlite3* database) const
{
    sqlite3_close_v2(database);
}

void Journal::Closer::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

Journal::Journal(const std::string& file) : m_file(file)
{
    try
    {
        Open();
    }
    catch (const JournalError& error)
    {
        if (error.isDamage)
        {
            QEL_LOG(vtx::LevelWarning, "journal %s cannot be used: %s", file.c_str(), error.what());
            BeginAnew();
        }
        else
        {
            Degrade(error.what());
        }
    }
}

Journal::~Journal() = default;

void Journal::BeginAnew()
{
    Close();
    std::error_code ignored;
    std::filesystem::rename(m_file, m_file + ".corrupt", ignored);
    std::filesystem::remove(m_file + "-wal", ignored);
    std::filesystem::remove(m_file + "-shm", ignored);
    try
    {
        Open();
        QEL_LOG(
            vtx::LevelWarning,
            "journal begun anew; the old one is kept as %s.corrupt, the applications' configurations "
            "are asked for again",
            m_file.c_str());
    }
    catch (const JournalError& error)
    {
        Degrade(error.what());
    }
}

void Journal::Close()
{
    m_put.reset();
    m_erase.reset();
    m_eraseLeaving.reset();
    m_database.reset();
}

void Journal::Open()
{
    sqlite3* raw = nullptr;
    const int status = sqlite3_open_v2(
        m_file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    m_database.reset(raw);
    if (status != SQLITE_OK)
    {
        throw JournalError(m_database.get());
    }
    sqlite3_busy_timeout(m_database.get(), 2000);
    // Without its two companions, which closing would remove, the file cannot be read where nothing can be written.
    int keepCompanions = 1;
    sqlite3_file_control(m_database.get(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &keepCompanions);
    // The process may die at any instant, which WAL survives without a sync per transaction. A power cut may cost the
    // last ones; the broker restarts or redelivers then as well.
    Execute("PRAGMA synchronous=NORMAL");
    const bool isNew = Check();
    if (sqlite3_db_readonly(m_database.get(), nullptr) == 1)
    {
        throw JournalError("it is read-only", false);
    }
    if (isNew)
    {
        Execute(SCHEMA);
    }
    m_put = Prepare("INSERT INTO route VALUES (?1, ?2, ?3, ?4, ?5)"
                    " ON CONFLICT (name, queue, kind, application) DO UPDATE SET state = ?5");
    m_erase = Prepare("DELETE FROM route WHERE application = ?1 AND kind = ?2 AND name = ?3 AND queue = ?4");
    m_eraseLeaving = Prepare("DELETE FROM route WHERE kind = 2 AND name = ?1 AND queue = ?2 AND state = 2");
}

int Journal::Ask(const char* pragma)
{
    const Statement statement = Prepare(pragma);
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
    {
        throw JournalError(m_database.get());
    }
    return sqlite3_column_int(statement.get(), 0);
}

bool Journal::Check()
{
    const int found = Ask("PRAGMA application_id");
    if (found != 0 && found != APPLICATION_ID)
    {
        throw JournalError("it is not a journal of qel", true);
    }
    if (Ask("PRAGMA user_version") > NEWEST_VERSION)
    {
        throw JournalError("a newer version of qel-agent has written it", true);
    }
    const Statement check = Prepare("PRAGMA quick_check(1)");
    if (sqlite3_step(check.get()) != SQLITE_ROW)
    {
        throw JournalError(m_database.get());
    }
    if (ColumnBytes(check.get(), 0) != "ok")
    {
        throw JournalError("it is damaged", true);
    }
    return found == 0;
}

Journal::Statement Journal::Prepare(const char* sql)
{
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(m_database.get(), sql, -1, &raw, nullptr) != SQLITE_OK)
    {
        throw JournalError(m_database.get());
    }
    return Statement(raw);
}

void Journal::Execute(const char* sql)
{
    if (sqlite3_exec(m_database.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        throw JournalError(m_database.get());
    }
}

std::vector<RouteRecord> Journal::Load()
{
    std::vector<RouteRecord> records;
    if (!m_database)
    {
        return records;
    }
    try
    {
        const Statement rows = Prepare("SELECT application, kind, name, queue, state FROM route ORDER BY rowid");
        int status = SQLITE_ROW;
        while ((status = sqlite3_step(rows.get())) == SQLITE_ROW)
        {
            records.push_back(
                {ColumnBytes(rows.get(), 0), static_cast<RouteKind>(sqlite3_column_int(rows.get(), 1)),
                 ColumnBytes(rows.get(), 2), ColumnBytes(rows.get(), 3),
                 static_cast<RouteState>(sqlite3_column_int(rows.get(), 4))});
        }
        if (status != SQLITE_DONE)
        {
            throw JournalError(m_database.get());
        }
    }
    catch (const JournalError& error)
    {
        records.clear();
        Degrade(error.what());
    }
    return records;
}

bool Journal::Write(const std::vector<JournalChange>& changes)
{
    return !m_degraded && (changes.empty() || InTransaction(changes, false));
}

bool Journal::EraseLeaving(const std::string& queue, const std::string& topic)
{
    if (m_degraded)
    {
        return false;
    }
    BindBlob(m_eraseLeaving.get(), 1, topic);
    BindBlob(m_eraseLeaving.get(), 2, queue);
    const int status = sqlite3_step(m_eraseLeaving.get());
    sqlite3_reset(m_eraseLeaving.get());
    if (status != SQLITE_DONE)
    {
        Degrade(sqlite3_errmsg(m_database.get()));
    }
    return !m_degraded;
}

bool Journal::Replace(const std::vector<RouteRecord>& records)
{
    std::vector<JournalChange> changes;
    changes.reserve(records.size());
    for (const RouteRecord& record : records)
    {
        changes.push_back({record, false});
    }
    try
    {
        if (m_degraded)
        {
            Close();
            Open();
        }
    }
    catch (const JournalError& error)
    {
        Degrade(error.what());
        return false;
    }
    if (!InTransaction(changes, true))
    {
        return false;
    }
    if (m_degraded)
    {
        m_degraded = false;
        QEL_LOG(vtx::LevelStatus, "journal %s is complete again", m_file.c_str());
    }
    return true;
}

bool Journal::InTransaction(const std::vector<JournalChange>& changes, bool clearFirst)
{
    try
    {
        Execute("BEGIN IMMEDIATE");
        if (clearFirst)
        {
            Execute("DELETE FROM route");
        }
        for (const JournalChange& change : changes)
        {
            Apply(change);
        }
        Execute("COMMIT");
        return true;
    }
    catch (const JournalError& error)
    {
        sqlite3_exec(m_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        Degrade(error.what());
        return false;
    }
}

void Journal::Apply(const JournalChange& change)
{
    sqlite3_stmt* statement = (change.erase ? m_erase : m_put).get();
    const RouteRecord& record = change.record;
    BindBlob(statement, 1, record.application);
    sqlite3_bind_int(statement, 2, static_cast<int>(record.kind));
    BindBlob(statement, 3, record.name);
    BindBlob(statement, 4, record.queue);
    if (!change.erase)
    {
        sqlite3_bind_int(statement, 5, static_cast<int>(record.state));
    }
    const int status = sqlite3_step(statement);
    sqlite3_reset(statement);
    // A name that the broker will refuse can have megabytes, and the statement would keep it.
    sqlite3_clear_bindings(statement);
    if (status != SQLITE_DONE)
    {
        throw JournalError(m_database.get());
    }
}

void Journal::Degrade(const std::string& why)
{
    if (!m_degraded)
    {
        QEL_LOG(
            vtx::LevelWarning,
            "journal %s cannot be written: %s. The agent goes on without it; after a restart the "
            "applications' configurations are needed again",
            m_file.c_str(), why.c_str());
    }
    m_degraded = true;
}

} // namespace VtxQel
