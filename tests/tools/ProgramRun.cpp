#include "tools/ProgramRun.h"

#include <stdexcept>

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

void Require(bool fine, const char* what)
{
    if (!fine)
    {
        throw std::runtime_error(what);
    }
}

} // namespace

ProgramRun::ProgramRun(const std::vector<std::string>& arguments, const std::string& input)
    : m_in(memfd_create("in", MFD_CLOEXEC)), m_out(memfd_create("out", MFD_CLOEXEC)),
      m_err(memfd_create("err", MFD_CLOEXEC))
{
    Require(m_in >= 0 && m_out >= 0 && m_err >= 0, "no memory files for input and output");
    Require(pwrite(m_in, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()), "no room for the input");
    unsetenv("QEL_BROKER_URL");
    unsetenv("QEL_BROKER_PASSWORD");
    unsetenv("QEL_RUNTIME_DIRECTORY");
    std::vector<std::string> texts = {QELCTL_PROGRAM};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, m_in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, m_out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, m_err, STDERR_FILENO);
    const int failed = posix_spawn(&m_pid, QELCTL_PROGRAM, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Require(failed == 0, "qelctl cannot be started");
}

ProgramRun::~ProgramRun()
{
    if (m_pid > 0)
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_in);
    close(m_out);
    close(m_err);
}

void ProgramRun::Signal(int number) const
{
    kill(m_pid, number);
}

std::string ProgramRun::Out() const
{
    return ReadAll(m_out);
}

ProgramResult ProgramRun::Finish()
{
    int status = 0;
    Require(waitpid(m_pid, &status, 0) == m_pid, "qelctl cannot be waited for");
    m_pid = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(m_out), ReadAll(m_err)};
}

std::string ProgramRun::ReadAll(int file)
{
    // The program writes at the position that it shares with us: read without moving it.
    std::string text;
    char chunk[4096];
    for (ssize_t got = 0; (got = pread(file, chunk, sizeof(chunk), static_cast<off_t>(text.size()))) > 0;)
    {
        text.append(chunk, static_cast<std::size_t>(got));
    }
    return text;
}

ProgramResult RunQelctl(const std::vector<std::string>& arguments, const std::string& input)
{
    return ProgramRun(arguments, input).Finish();
}

} // namespace VtxQel
