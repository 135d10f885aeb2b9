#pragma once

#include "ConfigurationFolder.h"
#include "ManagementSession.h"

#include <atomic>
#include <ostream>
#include <string>

namespace VtxQel
{

/** Where agents send their requests for configurations; see Service(). */
struct PlaneAddress
{
    /** Empty: the default exchange. */
    std::string exchange;
    std::string routingKey = "qel.plane";
    /** With an exchange: the queue that is bound there. */
    std::string queue = "qel.plane";
};

/**
 * PlaneServer gives agents what the files of a folder say, when they ask and whenever a file changes, until Stop(). For
 * one thread, but for Stop(), which any may call.
 */
class PlaneServer
{
  public:
    /** @throws Failure when the folder cannot be watched. */
    PlaneServer(std::string directory, PlaneAddress address);

    /** Works until Stop(). @throws Failure when it does not come about, UsageError as GlobalOptions does. */
    void Run(const GlobalOptions& options, std::ostream& out);
    void Stop();

  private:
    RequestService Service() const;

    const std::string m_directory;
    const PlaneAddress m_address;
    ConfigurationFolder m_folder;
    std::atomic<bool> m_stop{false};
};

} // namespace VtxQel
