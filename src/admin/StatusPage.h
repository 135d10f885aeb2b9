#pragma once

#include <string>

namespace VtxQel
{

/** The page for people: one HTML file that asks for nothing but /status and /routes. */
struct StatusPage
{
    std::string html;
    /** Allows the page's own script and style, known by a word that changes each time, and nothing else. */
    std::string contentSecurityPolicy;

    static StatusPage Make();
};

} // namespace VtxQel
