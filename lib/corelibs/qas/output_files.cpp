#include "lib/corelibs/qas/output_files.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "lib/corelibs/qas/data_names.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

/// A record's data files that are reached by name.
std::vector<std::string> data_files(Layer& layer, streaminf& stream) {
    std::vector<std::string> names;
    if (!stream.io || stream.iotype == FILE_IO || stream.dataname == "-1") return names;
    for (std::size_t at = 0; at <= stream.dataname.size();) {
        const std::size_t end = std::min(stream.dataname.find(';', at), stream.dataname.size());
        try {
            if (end > at) names.push_back(expand_info(layer, stream.dataname.substr(at, end - at), stream));
        } catch (const Fatal&) {  // a name with an unknown variable is no file's
        }
        at = end + 1;
    }
    return names;
}

/// Whether two names of files that do not exist lead to one place.
bool same_place(const std::string& a, const std::string& b) {
    std::error_code unknown;
    const auto path = [&](const std::string& name) {
        return std::filesystem::weakly_canonical(std::filesystem::absolute(name, unknown), unknown);
    };
    const std::filesystem::path path_of_a = path(a);
    return !path_of_a.empty() && path_of_a == path(b);
}

/// Identity of the file a record's header stands in; empty for pipes, devices, and what is gone.
std::string header_file(const Layer& layer, const streaminf& stream) {
    if (stream.headfile) return file_identity(::fileno(stream.headfile));
    if (stream.header_source.open()) return file_identity(stream.header_source.fd());
    return stream.headername == "stdin" ? file_identity(::fileno(layer.in)) : file_identity(stream.headername);
}

bool overwrites(const streaminf& stream) {
    return stream.entrytype != STREAMIN && !(stream.entrytype == STREAMINOUT && stream.headerbuf);
}

/// An output whose header goes to a device such as /dev/null: nobody will find its data.
bool is_lost(const streaminf& stream) {
    return stream.entrytype == STREAMOUT && stream.headfile && !stream.isapipe &&
           !fdordinary(::fileno(stream.headfile));
}

}  // namespace

void check_data_is_free(Layer& layer, streaminf& stream, const std::string& name) {
    if (!overwrites(stream) || is_special_file(name)) return;
    const std::string identity = file_identity(name);
    const auto refuse = [&](const char* what, const streaminf& other) {
        qaserr("output data file \"%s\" for tag \"%s\" is the %s %s: give %s=FILE or another datapath=\n", name.c_str(),
               stream.tagname.c_str(), what, header_place(other).c_str(),
               stream.tagname == "out" ? "out" : (stream.tagname + ".out").c_str());
    };
    for (const auto& other : layer.streams) {
        if (!identity.empty() && identity == header_file(layer, *other)) refuse("file of", *other);
        if (other.get() == &stream || (is_lost(stream) && is_lost(*other))) continue;
        for (const std::string& theirs : data_files(layer, *other))
            if (identity.empty() ? overwrites(*other) && same_place(name, theirs) : identity == file_identity(theirs))
                refuse("data file of", *other);
    }
}

void check_files_are_free(Layer& layer, streaminf& stream) {
    const std::string identity = stream.close_headfile ? header_file(layer, stream) : std::string();
    for (const auto& other : layer.streams) {
        if (identity.empty() || other.get() == &stream) continue;
        const auto refuse = [&](const char* what) {
            qaserr("output %s is the %s %s: give it another name\n", header_place(stream).c_str(), what,
                   header_place(*other).c_str());
        };
        if (identity == header_file(layer, *other)) refuse("file of");
        for (const std::string& theirs : data_files(layer, *other))
            if (identity == file_identity(theirs)) refuse("data file of");
    }
    for (const std::string& name : data_files(layer, stream)) check_data_is_free(layer, stream, name);
}

}  // namespace qas
