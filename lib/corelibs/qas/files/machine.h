#pragma once
/// Who runs where.
#include <string>

namespace qas {

/// Name of the user: login name, else USER, else the password entry; empty if there is none.
std::string user_name();
/// Name of this machine.
std::string host_name();

}  // namespace qas
