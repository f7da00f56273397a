#pragma once
/// The keys of a run, in one table: `--help`, the warnings of keys that nobody reads, and the documents follow it.
#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// The keys that owparam, the inversion and the dip filter read, by group, without those of the dataset layer.
std::vector<qas::KeyGroup> run_keys();

/// Declares the table in the session and warns of each word and key that it does not list; with strict=y these end the
/// run.
void check_keys(qas::Session& session, const qas::KeyTable& keys);

}  // namespace morvane
