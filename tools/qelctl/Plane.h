#pragma once

#include "ConfigurationFolder.h"
#include "appinit/AppInitConfigMsg.pb.h"
#include "common/Publisher.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>

namespace VtxQel
{

/**
 * Plane is a management plane in small: it holds the configurations that files say, sends each when its file changes
 * and answers the agents that ask for theirs. What it does is printed, a line each.
 *
 * For one thread. A file that cannot be used leaves the configuration before in force. What could not be sent because
 * the broker was away is kept for SendAgain().
 */
class Plane
{
  public:
    /** Publishes with confirm; the completion runs later, on the plane's thread. */
    using Send = std::function<void(OutgoingMessage message, PublishCompletion completion)>;

    /** @param folder where the files are, for messages. @param user the user-id of what is sent. */
    Plane(std::string folder, std::string user, Send send, std::ostream& out, bool json);

    /** Takes over a file that was written or removed. */
    void Take(const ConfigurationChange& change);
    /** Answers a message that came where requests go. */
    void Answer(const RmqProperties& request);
    /** Whether something waits for SendAgain(). */
    bool HasUnsent() const { return !m_unsent.empty(); }
    void SendAgain();
    /** Prints what happened to the connection: an event of this name. */
    void Say(const std::string& event, const std::string& text);

  private:
    /** An agent and its application. */
    using Whose = std::pair<std::string, std::string>;

    void Read(const Whose& whose, const std::string& file);
    void Deliver(const Whose& whose, const std::string& cause);
    void Conclude(const Whose& whose, const std::string& cause, PublishResult result, const std::string& why);
    void Print(nlohmann::ordered_json line, const std::string& text);

    const std::string m_folder;
    const std::string m_user;
    const Send m_send;
    std::ostream& m_out;
    const bool m_json;
    std::map<Whose, brelix::vtx::messaging::appinit::AppInitConfigMsg> m_configurations;
    std::set<Whose> m_unsent;
    /** Of whom it has been said that sending is tried again. */
    std::set<Whose> m_troubled;
    /** Who has been told of to ask for what is not there; bounded, because anybody may ask. */
    std::set<Whose> m_unanswered;
};

} // namespace VtxQel
