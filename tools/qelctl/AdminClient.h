#pragma once

#include <chrono>
#include <string>
#include <utility>

namespace CLI
{
class App;
}

namespace VtxQel
{

/** Where the agent's sockets are: the environment's QEL_RUNTIME_DIRECTORY, else /run/qel. */
std::string DefaultRuntimeDirectory();

/** What the agent answered over HTTP. */
struct AdminAnswer
{
    unsigned status = 0;
    std::string body;
};

/**
 * AdminClient asks the agent on this host for its state, by its admin socket. One request is one connection.
 */
class AdminClient
{
  public:
    /** The status qelctl ends with when no agent answers. */
    static constexpr int NO_AGENT = 3;

    /** @param runtimeDirectory the agent's */
    explicit AdminClient(std::string runtimeDirectory = DefaultRuntimeDirectory())
        : m_runtimeDirectory(std::move(runtimeDirectory))
    {
    }

    /** Adds --runtime-directory to a verb; it lands in this object, which must outlive the command line. */
    void Register(CLI::App& verb);

    /**
     * @param target path and query.
     * @throws Failure with the status NO_AGENT when nobody answers within the timeout.
     */
    AdminAnswer Get(const std::string& target, std::chrono::milliseconds timeout) const;
    AdminAnswer Put(const std::string& target, const std::string& body, std::chrono::milliseconds timeout) const;
    /** As Get, and the answer's body. @throws Failure also when the answer is an error. */
    std::string Fetch(const std::string& target, std::chrono::milliseconds timeout) const;

  private:
    std::string Socket() const { return m_runtimeDirectory + "/admin.sock"; }

    std::string m_runtimeDirectory;
};

/** Text for a query: whatever has a meaning in URLs is escaped. */
std::string UrlEncoded(const std::string& text);

} // namespace VtxQel
