#pragma once
/// Where new data files go and what they are called.
#include <string>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// A directory prefix, put in front of names as it is, or several with ";" between them.
struct DataPath {
    std::string prefix;
    std::string source;       ///< where it came from, for messages
    bool by_default = false;  ///< nothing was given
};

/// The prefix for new data files: parameter "datapath", else the environment's DATAPATH, else the file ".datapath" in
/// the current folder, else that in HOME, else "/tmp/", "/", the user's name and "/_".
DataPath datapath(Layer& layer);

/// Makes the folder of the default path `name` begins with, if its parent exists and it does not; says whether it did.
bool make_default_folder(const std::string& name);

/// The prefix that the text of a ".datapath" file gives the host: its first word "datapath=PREFIX", or the last later
/// pair "HOST datapath=PREFIX" of that short host name.
/// Errors: " Error reading .datapath file".
std::string readpath(std::string_view text, std::string_view short_host);

/// Data file name for `name` under a prefix; with `unique` a suffix makes it one that no file has.
/// Errors: "nfiles to large, max %d \n".
std::string makenames(Layer& layer, const std::string& prefix, const std::string& name, bool unique);

/// `name` made absolute; one that begins "./" stays, and so does one that begins "$".
std::string expand_name(const std::string& name);
/// `name` behind the current folder (a leading "/tmp_mnt" dropped), unless it begins with "/" or "$".
std::string fullnm(const std::string& name);
/// VAR of "$VAR/rest"; empty if the name does not begin with "$".
std::string envhead(const std::string& name);
/// A data name with a leading "$VAR" replaced from the environment, the command line, or the record's header.
/// Errors: "Unable to obtain pathname variable %s\n".
std::string expand_info(Layer& layer, const std::string& name, streaminf& stream);
/// What stands behind the last "/".
std::string qas_tail(const std::string& name);
/// `base` with six characters that make it a name no file has; made from the process number where the folder cannot be
/// asked, so that a data file that may never be written does not end the run.
std::string mkrandom_string(const std::string& base);

}  // namespace qas
