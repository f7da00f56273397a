#include "lib/corelibs/qas/output_files.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "lib/corelibs/qas/data_names.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {}  // namespace

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

bool overwrites(const streaminf& stream) {
    return stream.entrytype != STREAMIN && !(stream.entrytype == STREAMINOUT && stream.headerbuf);
}

bool is_lost(const streaminf& stream) {
    return stream.entrytype == STREAMOUT && stream.headfile && !stream.isapipe &&
           !fdordinary(::fileno(stream.headfile));
}

namespace {

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
    if (stream.new_header.target() >= 0) return file_identity(stream.new_header.target());
    if (stream.headfile) return file_identity(::fileno(stream.headfile));
    if (stream.header_source.open()) return file_identity(stream.header_source.fd());
    return stream.headername == "stdin" ? file_identity(::fileno(layer.in)) : file_identity(stream.headername);
}

/// What a file is called that belongs to no dataset, but to the program or its user; empty for any other.
std::string plain_owner(const Layer& layer, const std::string& identity) {
    for (const PlainFile& file : layer.plain_files)
        if (identity == file_identity(file.name)) return file.label;
    const auto is_in = [&](const ParTable& table) {
        return std::ranges::any_of(table.files, [&](const auto& name) { return identity == file_identity(name); });
    };
    if (is_in(layer.getch_queue)) return "a parameter file";
    for (const auto& stream : layer.streams)
        if (is_in(stream->hetch_queue)) return "a parameter file of " + header_place(*stream);
    return {};
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
    if (const std::string owner = identity.empty() ? std::string() : plain_owner(layer, identity); !owner.empty())
        qaserr("output data file \"%s\" for tag \"%s\" is %s: give %s=FILE or another datapath=\n", name.c_str(),
               stream.tagname.c_str(), owner.c_str(),
               stream.tagname == "out" ? "out" : (stream.tagname + ".out").c_str());
    for (const auto& other : layer.streams) {
        if (!identity.empty() && identity == header_file(layer, *other)) refuse("file of", *other);
        if (other.get() == &stream || (is_lost(stream) && is_lost(*other))) continue;
        for (const std::string& theirs : data_files(layer, *other))
            if (identity.empty() ? overwrites(*other) && same_place(name, theirs) : identity == file_identity(theirs))
                refuse("data file of", *other);
    }
}

void check_header_is_free(Layer& layer, const streaminf& stream) {
    const std::string identity = stream.close_headfile ? header_file(layer, stream) : std::string();
    if (const std::string owner = identity.empty() ? std::string() : plain_owner(layer, identity); !owner.empty())
        qaserr("output %s is %s: give it another name\n", header_place(stream).c_str(), owner.c_str());
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
}

void check_files_are_free(Layer& layer, streaminf& stream) {
    check_header_is_free(layer, stream);
    for (const std::string& name : data_files(layer, stream)) check_data_is_free(layer, stream, name);
}

void check_plain_output(Layer& layer, const PlainFile& file) {
    const std::string identity = file_identity(file.name);
    if (identity.empty()) return;
    const auto refuse = [&](const std::string& what) {
        qaserr("%s: this is %s: %s\n", file.label.c_str(), what.c_str(), file.cure.c_str());
    };
    for (const auto& stream : layer.streams) {
        if (identity == header_file(layer, *stream)) refuse(header_place(*stream));
        for (const std::string& name : data_files(layer, *stream))
            if (identity == file_identity(name)) refuse("the data file of " + header_place(*stream));
    }
    if (const std::string owner = plain_owner(layer, identity); !owner.empty()) refuse(owner);
    const std::pair<std::FILE*, const char*> streams[] = {
        {layer.in, "the standard input"}, {layer.out, "the standard output"}, {layer.notes.err, "the standard error"}};
    for (const auto& [stream, what] : streams)
        if (identity == file_identity(::fileno(stream))) refuse(what);
}

}  // namespace qas
