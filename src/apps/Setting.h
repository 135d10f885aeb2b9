#pragma once

#include <optional>
#include <string>

namespace VtxQel
{

/** A key of a configuration file and what counts for it. */
struct Setting
{
    /** Section and key with a dot between. */
    std::string key;
    /** As TOML writes it; nothing when the key is absent and has no default. */
    std::optional<std::string> value;
    /** The file says so; else it is the default. */
    bool given = false;

    bool operator==(const Setting&) const = default;
};

} // namespace VtxQel
