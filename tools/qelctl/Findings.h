#pragma once

#include <cstddef>
#include <string>

namespace VtxQel
{

/** How bad a finding is. */
enum class Grade
{
    ok,
    warning,
    failure
};

/** One thing that was looked at. */
struct Finding
{
    Grade grade = Grade::ok;
    /** What was looked at, in a word or two. */
    std::string check;
    /** What was found, and what to do about it unless all is well. */
    std::string text;
    std::string cure;
};

/** Findings prints each finding as soon as it is made, a line each, and remembers the worst. */
class Findings
{
  public:
    explicit Findings(bool json) : m_json(json) {}

    void Ok(const std::string& check, const std::string& text) { Add({Grade::ok, check, text, ""}); }
    void Warn(const std::string& check, const std::string& text, const std::string& cure)
    {
        Add({Grade::warning, check, text, cure});
    }
    void Fail(const std::string& check, const std::string& text, const std::string& cure)
    {
        Add({Grade::failure, check, text, cure});
    }
    void Add(const Finding& finding);

    std::size_t Failures() const { return m_failures; }
    std::size_t Warnings() const { return m_warnings; }

  private:
    const bool m_json;
    std::size_t m_failures = 0;
    std::size_t m_warnings = 0;
};

} // namespace VtxQel
