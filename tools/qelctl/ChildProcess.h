#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>

namespace VtxQel
{

/** What to run: a program with exactly these arguments and this environment, without a shell. */
struct ChildProgram
{
    /** For messages: "the agent". */
    std::string name;
    std::string file;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    /** The file that gets what it prints. */
    std::string output;
    /** How it is asked to end. */
    int endSignal = SIGTERM;
};

/** The file of a program in the PATH, else in the folder; empty when it is in neither. */
std::string FindProgram(const std::string& name, const std::string& folder);

/**
 * ChildProcess is a program that runs as long as this object lives, in a session of its own, so that a terminal's
 * Ctrl-C does not reach it. The kernel kills it when the thread that started it ends, however that ends.
 *
 * Made and destroyed by one thread; the rest may be called from any.
 */
class ChildProcess
{
  public:
    /**
     * @param onEnd called once when it has ended, also by us, on a thread of its own; must not destroy this object.
     * @throws Failure when it cannot be started.
     */
    ChildProcess(ChildProgram program, std::function<void()> onEnd);
    /** Asks it to end, kills it when it does not within twenty seconds, and waits for that. */
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool HasEnded() const;
    /** "the agent has ended with status 1", and the end of what it has printed. */
    std::string Obituary() const;
    /** "; its last words: ...", the end of what it has printed; nothing when it has not. */
    std::string Tail() const;

  private:
    class Handle;

    void Watch();
    void Signal(int number);

    const ChildProgram m_program;
    const std::function<void()> m_onEnd;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::unique_ptr<Handle> m_handle;
    bool m_ended = false;
    std::string m_how;

    std::thread m_watcher;
};

} // namespace VtxQel
