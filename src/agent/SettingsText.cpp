#include "agent/SettingsText.h"

#include <algorithm>
#include <map>

namespace VtxQel
{

namespace
{

struct Name
{
    std::string section;
    std::string key;
};

Name Split(const std::string& key)
{
    const std::size_t dot = key.rfind('.');
    return dot == std::string::npos ? Name{"", key} : Name{key.substr(0, dot), key.substr(dot + 1)};
}

std::string Line(const std::string& key, const Setting& setting)
{
    if (!setting.value)
    {
        return "# " + key + " is not set\n";
    }
    return key + " = " + *setting.value + (setting.given ? "" : "  # default") + "\n";
}

} // namespace

std::string SettingsText(const std::vector<Setting>& settings, bool effective)
{
    std::vector<std::string> sections;
    std::map<std::string, std::string> lines;
    for (const Setting& setting : settings)
    {
        if (!setting.given && !effective)
        {
            continue;
        }
        const auto [section, key] = Split(setting.key);
        if (!lines.contains(section))
        {
            sections.push_back(section);
        }
        lines[section] += Line(key, setting);
    }
    std::string text;
    for (const std::string& section : sections)
    {
        text += (text.empty() ? "" : "\n") + (section.empty() ? "" : "[" + section + "]\n") + lines[section];
    }
    return text;
}

std::vector<std::string> ChangedKeys(const std::vector<Setting>& before, const std::vector<Setting>& now)
{
    std::vector<std::string> changed;
    for (const Setting& setting : now)
    {
        const auto same = [&setting](const Setting& other) { return other.key == setting.key; };
        const auto was = std::find_if(before.begin(), before.end(), same);
        if (was == before.end() || was->value != setting.value)
        {
            changed.push_back(setting.key);
        }
    }
    return changed;
}

} // namespace VtxQel
