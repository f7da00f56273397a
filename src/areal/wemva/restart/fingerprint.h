#pragma once
/// What a run depends on, as text, so that a later run can tell whether it is the same.
#include <initializer_list>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/session.h"

namespace morvane {

/// A line `key=value` for each key of the run that was given and decides its result.
std::string fingerprint_of_parameters(qas::Session& session);
/// A line for each of these inputs: size and checksum of its header, size and sampled checksum of its data.
std::string fingerprint_of_inputs(qas::Session& session, std::initializer_list<std::string_view> tags);
/// A line for a text file: its size and checksum.
std::string fingerprint_of_file(const std::string& label, const std::string& name);

/// Refuses the first line that differs, with both values.
/// @param then, now lines "name=value"
void compare_fingerprints(const std::string& what, std::string_view then, std::string_view now);

}  // namespace morvane
