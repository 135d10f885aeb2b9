#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace VtxQel
{

/** How a program that has ended did. */
struct ProgramResult
{
    /** The exit status, or -1 when a signal ended it. */
    int status = -1;
    std::string out;
    std::string err;
};

/**
 * One run of the program under test, qelctl, without a broker in its environment. Its output goes to temporary files.
 * A run that is destroyed before it has ended is killed. For one thread.
 */
class ProgramRun
{
  public:
    /** @param input what it reads from its standard input. */
    explicit ProgramRun(const std::vector<std::string>& arguments, const std::string& input = "");
    ~ProgramRun();
    ProgramRun(const ProgramRun&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;

    void Signal(int number) const;
    /** What it has printed so far. */
    std::string Out() const;
    /** Waits for its end. */
    ProgramResult Finish();

  private:
    static std::string ReadAll(int file);

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
};

/** Runs qelctl to its end. */
ProgramResult RunQelctl(const std::vector<std::string>& arguments, const std::string& input = "");

} // namespace VtxQel
