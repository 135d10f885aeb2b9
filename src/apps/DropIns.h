#pragma once

#include "apps/ApplicationSettings.h"
#include "apps/Setting.h"

#include <map>
#include <string>
#include <vector>

namespace VtxQel
{

/** What a folder of drop-in files says. */
struct DropIns
{
    /** The applications of the files that are sound, by name. */
    std::vector<ApplicationSettings> applications;
    /** Every key of each application, by its name. */
    std::map<std::string, std::vector<Setting>> settings;
    /** A line for everything that is wrong, naming file, line and column. */
    std::vector<std::string> problems;
};

/**
 * Reads every NAME.toml of the folder, each of which makes the application NAME known. A file with a mistake is left
 * out and reported; the others count. Files of other names are ignored. Any thread.
 */
DropIns LoadDropIns(const std::string& folder);

/**
 * Adds a problem for each application whose user or group this host does not know. Who may attach is looked up when the
 * sockets are made; a name that is not known is most likely a mistake.
 */
void CheckOwners(DropIns& dropIns);

} // namespace VtxQel
