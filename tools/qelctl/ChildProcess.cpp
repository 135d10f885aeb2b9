#include "ChildProcess.h"

#include "Failure.h"

#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/env.hpp>
#include <boost/process/exe.hpp>
#include <boost/process/extend.hpp>
#include <boost/process/io.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr std::chrono::seconds endPatience{20};
constexpr std::size_t tailLines = 12;

/** Runs in the child, just before it becomes the program: it takes signals again and does not outlive its parent. */
void Detach(pid_t parent)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setsid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
    {
        _exit(1);
    }
}

} // namespace

std::string FindProgram(const std::string& name, const std::string& folder)
{
    const char* const path = std::getenv("PATH");
    std::istringstream folders((path == nullptr ? "" : std::string(path) + ":") + folder);
    for (std::string tried; std::getline(folders, tried, ':');)
    {
        std::string file = tried.append("/").append(name);
        if (access(file.c_str(), X_OK) == 0)
        {
            return file;
        }
    }
    return "";
}

class ChildProcess::Handle
{
  public:
    explicit Handle(const ChildProgram& program)
    {
        namespace bp = boost::process;
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(
            std::fopen(program.output.c_str(), "ae"), &std::fclose);
        if (!output)
        {
            throw Failure(program.output + " cannot be written: " + std::strerror(errno));
        }
        bp::environment environment;
        for (const auto& [name, value] : program.environment)
        {
            environment[name] = value;
        }
        std::error_code error;
        m_child = bp::child(
            bp::exe = program.file, bp::args = program.arguments, environment,
            bp::std_in<bp::null, (bp::std_out & bp::std_err)> output.get(),
            bp::extend::on_exec_setup = [parent = getpid()](auto&) { Detach(parent); }, error);
        if (error)
        {
            throw Failure(program.name + " (" + program.file + ") cannot be started: " + error.message());
        }
    }

    boost::process::child m_child;
};

ChildProcess::ChildProcess(ChildProgram program, std::function<void()> onEnd)
    : m_program(std::move(program)), m_onEnd(std::move(onEnd)), m_handle(std::make_unique<Handle>(m_program)),
      m_watcher(&ChildProcess::Watch, this)
{
}

ChildProcess::~ChildProcess()
{
    Signal(m_program.endSignal);
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, endPatience, [this] { return m_ended; });
    }
    Signal(SIGKILL);
    m_watcher.join();
}

// Its number is its own until it is waited for, which is done under the lock that those take who send signals.
void ChildProcess::Watch()
{
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(m_handle->m_child.id()), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR)
    {
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::error_code error;
        m_handle->m_child.wait(error);
        m_how = info.si_code == CLD_EXITED ? "has ended with status " + std::to_string(info.si_status)
                                           : "was ended by the signal " + std::string(strsignal(info.si_status));
        m_ended = true;
        m_changed.notify_all();
    }
    m_onEnd();
}

void ChildProcess::Signal(int number)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ended)
    {
        kill(m_handle->m_child.id(), number);
    }
}

bool ChildProcess::HasEnded() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ended;
}

std::string ChildProcess::Obituary() const
{
    const std::string tail = Tail();
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_program.name + " " + (m_ended ? m_how : "is running") + tail;
}

std::string ChildProcess::Tail() const
{
    std::ifstream output(m_program.output);
    std::deque<std::string> lines;
    for (std::string line; std::getline(output, line);)
    {
        lines.push_back(line);
        if (lines.size() > tailLines)
        {
            lines.pop_front();
        }
    }
    std::string text;
    for (const std::string& line : lines)
    {
        text += (text.empty() ? "; its last words:\n  " : "\n  ") + line;
    }
    return text;
}

} // namespace VtxQel
