#pragma once
/// Header names that are no files: commands and socket addresses.
#include <string>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

bool is_command(const std::string& name);  ///< holds a `|`
bool is_socket(const std::string& name);   ///< holds a `:`

/// Ends the run if the name of this command or socket came out of a history: only the user's word starts or reaches
/// anything.
void refuse_from_history(const streaminf& stream);

/// The loopback address.
constexpr std::string_view loopback = "127.0.0.1";
/// Address on which sockets listen: parameter "qas.listen", default the loopback address.
std::string listen_address(Layer& layer);

/// Connects to `host:service`, up to 30 times one second apart, or waits 30 s for a connection to `:port` or `::path`.
/// Empty on failure.
Descriptor open_socket(Layer& layer, const std::string& name);

/// From now on a reader that goes away makes a write fail instead of ending the process.
void survive_broken_pipes(Layer& layer);

}  // namespace qas
