// Where the system keeps what it knows about hosts.
#pragma once

#include <string>

namespace trabex {

// The machine's own name as it is set, or "" when there is none.
std::string MachineName();

// The file of names and addresses that are known without asking.
std::string DefaultHostsPath();

// The file that names the DNS servers; "" where the system keeps them elsewhere, so that there is no file to watch.
std::string ResolverSettingsPath();

}  // namespace trabex
