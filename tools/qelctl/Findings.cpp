#include "Findings.h"

#include "common/Printable.h"

#include <nlohmann/json.hpp>

#include <iomanip>
#include <iostream>

namespace VtxQel
{

void Findings::Add(const Finding& finding)
{
    m_failures += finding.grade == Grade::failure ? 1 : 0;
    m_warnings += finding.grade == Grade::warning ? 1 : 0;
    const char* const grade = finding.grade == Grade::ok ? "OK" : finding.grade == Grade::warning ? "WARN" : "FAIL";
    if (m_json)
    {
        const nlohmann::ordered_json line = {
            {"result", grade}, {"check", finding.check}, {"text", finding.text}, {"cure", finding.cure}};
        std::cout << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
        return;
    }
    constexpr int gradeWidth = 6;
    constexpr int checkWidth = 15;
    std::cout << std::left << std::setw(gradeWidth) << grade << std::setw(checkWidth) << finding.check
              << Printable(finding.text + (finding.cure.empty() ? "" : "; cure: " + finding.cure)) << std::endl;
}

} // namespace VtxQel
