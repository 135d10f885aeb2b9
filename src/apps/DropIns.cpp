#include "apps/DropIns.h"

#include "apps/OrderingKeys.h"
#include "apps/PeerAccess.h"
#include "apps/StrictToml.h"
#include "common/Printable.h"
#include "common/QelException.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace VtxQel
{

namespace
{

constexpr StrictToml::Range windowRange{1, 65535};
/** Well below the 30 min after which RabbitMQ closes the channel of a consumer that does not answer. */
constexpr StrictToml::Range ackTimeoutRange{1, 900};
constexpr StrictToml::Range maxTriesRange{1, 1000000};
constexpr StrictToml::Range maxHeldBytesRange{1, std::int64_t{1} << 40U};

std::vector<std::filesystem::path> FilesIn(const std::string& folder, std::vector<std::string>& problems)
{
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    {
        const std::filesystem::path& path = entry->path();
        if (path.extension() == ".toml" && !path.filename().string().starts_with("."))
        {
            files.push_back(path);
        }
    }
    if (error)
    {
        problems.push_back(Printable(folder) + ": cannot be read: " + error.message());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Load(const std::filesystem::path& file, DropIns& dropIns)
{
    StrictToml toml(file.string());
    const ApplicationSettings otherwise;
    ApplicationSettings settings;
    settings.name = file.stem().string();
    settings.user = toml.String("user", otherwise.user);
    settings.group = toml.String("group", otherwise.group);
    settings.window = static_cast<std::uint32_t>(toml.Integer("window", otherwise.window, windowRange));
    settings.ackTimeout =
        std::chrono::seconds(toml.Integer("ack_timeout_seconds", otherwise.ackTimeout.count(), ackTimeoutRange));
    settings.maxTries = static_cast<std::uint32_t>(toml.Integer("max_tries", otherwise.maxTries, maxTriesRange));
    if (toml.Has("max_held_bytes"))
    {
        settings.maxHeldBytes = static_cast<std::size_t>(toml.Integer("max_held_bytes", 1, maxHeldBytesRange));
    }
    settings.orderingKey = toml.String("ordering_key", otherwise.orderingKey);
    if (!IsOrderingKeySource(settings.orderingKey))
    {
        toml.Fail("ordering_key", "use \"routing_key\" or \"header:NAME\" with a name of at most 255 bytes");
    }
    std::vector<std::string> problems = toml.Problems();
    if (!IsApplicationName(settings.name))
    {
        problems.push_back(
            Printable(file.string()) + ": \"" + Printable(settings.name) + "\" is no application's name: use 1 to " +
            std::to_string(maxApplicationNameLength) + " letters, digits, '.', '_' and '-'");
    }
    if (problems.empty())
    {
        dropIns.applications.push_back(settings);
        dropIns.settings[settings.name] = toml.Settings();
    }
    dropIns.problems.insert(dropIns.problems.end(), problems.begin(), problems.end());
}

} // namespace

bool IsApplicationName(const std::string& name)
{
    const auto isAllowed = [](char character)
    {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '.' || character == '_' || character == '-';
    };
    return !name.empty() && name.size() <= maxApplicationNameLength && std::all_of(name.begin(), name.end(), isAllowed);
}

DropIns LoadDropIns(const std::string& folder)
{
    DropIns dropIns;
    for (const std::filesystem::path& file : FilesIn(folder, dropIns.problems))
    {
        Load(file, dropIns);
    }
    return dropIns;
}

void CheckOwners(DropIns& dropIns)
{
    for (const ApplicationSettings& application : dropIns.applications)
    {
        try
        {
            OwnerOf(application);
        }
        catch (const QelException& error)
        {
            dropIns.problems.push_back(application.name + ".toml: " + error.what());
        }
    }
}

} // namespace VtxQel
