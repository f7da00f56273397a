#include "lib/corelibs/qas/records/output_files.h"

#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/data_names.h"

namespace qas {

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

/// Where a name leads, whether or not there is a file.
std::string place_of(const std::string& name) {
    std::error_code unknown;
    return std::filesystem::weakly_canonical(std::filesystem::absolute(name, unknown), unknown).string();
}

/// Identity of the file a record's header stands in; empty for pipes, devices, and what is gone.
std::string header_file(const Layer& layer, const streaminf& stream) {
    if (stream.new_header.target() >= 0) return file_identity(stream.new_header.target());
    if (stream.headfile) return file_identity(::fileno(stream.headfile));
    if (stream.header_source.open()) return file_identity(stream.header_source.fd());
    return stream.headername == "stdin" ? file_identity(::fileno(layer.in)) : file_identity(stream.headername);
}

/// Whose the files in use are: those that exist by identity, the data files that outputs will make by place. Made once
/// for all files of a dataset: there may be a thousand.
struct FilesInUse {
    struct User {
        const streaminf* stream;
        bool header;
    };
    std::multimap<std::string, User> by_identity, by_place;
    std::map<std::string, std::string> plain;  ///< what files are called that belong to the program or its user
};

FilesInUse files_in_use(Layer& layer) {
    FilesInUse used;
    for (const PlainFile& file : layer.plain_files) used.plain.emplace(file_identity(file.name), file.label);
    for (const std::string& name : layer.getch_queue.files) used.plain.emplace(file_identity(name), "a parameter file");
    for (const auto& stream : layer.streams) {
        for (const std::string& name : stream->hetch_queue.files)
            used.plain.emplace(file_identity(name), "a parameter file of " + header_place(*stream));
        used.by_identity.insert({header_file(layer, *stream), {stream.get(), true}});
        for (const std::string& name : data_files(layer, *stream)) {
            const std::string identity = file_identity(name);
            if (!identity.empty())
                used.by_identity.insert({identity, {stream.get(), false}});
            else if (overwrites(*stream))
                used.by_place.insert({place_of(name), {stream.get(), false}});
        }
    }
    const std::string none;  // streams, devices, and what is gone
    used.by_identity.erase(none);
    used.by_place.erase(none);
    used.plain.erase(none);
    return used;
}

/// The users of a file, or of the place where one will be.
std::vector<FilesInUse::User> users_of(const std::multimap<std::string, FilesInUse::User>& files,
                                       const std::string& key) {
    std::vector<FilesInUse::User> users;
    for (auto [at, end] = files.equal_range(key); at != end; ++at) users.push_back(at->second);
    return users;
}

}  // namespace

void check_data_is_free(Layer& layer, streaminf& stream) {
    if (!overwrites(stream)) return;
    const FilesInUse used = files_in_use(layer);
    for (const std::string& name : data_files(layer, stream)) {
        if (is_special_file(name)) continue;
        const auto refuse = [&](const std::string& what) {
            qaserr("output data file \"%s\" for tag \"%s\" is %s: give %s=FILE or another datapath=\n", name.c_str(),
                   stream.tagname.c_str(), what.c_str(),
                   stream.tagname == "out" ? "out" : (stream.tagname + ".out").c_str());
        };
        const std::string identity = file_identity(name);
        if (const auto owner = used.plain.find(identity); owner != used.plain.end()) refuse(owner->second);
        for (const auto& [user, header] :
             identity.empty() ? users_of(used.by_place, place_of(name)) : users_of(used.by_identity, identity)) {
            if (header) refuse("the file of " + header_place(*user));
            if (user != &stream && !(is_lost(stream) && is_lost(*user)))
                refuse("the data file of " + header_place(*user));
        }
    }
}

void check_header_is_free(Layer& layer, const streaminf& stream) {
    const std::string identity = stream.close_headfile ? header_file(layer, stream) : std::string();
    if (identity.empty()) return;
    const FilesInUse used = files_in_use(layer);
    const auto refuse = [&](const std::string& what) {
        qaserr("output %s is %s: give it another name\n", header_place(stream).c_str(), what.c_str());
    };
    if (const auto owner = used.plain.find(identity); owner != used.plain.end()) refuse(owner->second);
    for (const auto& [user, header] : users_of(used.by_identity, identity))
        if (user != &stream) refuse((header ? "the file of " : "the data file of ") + header_place(*user));
}

void check_files_are_free(Layer& layer, streaminf& stream) {
    check_header_is_free(layer, stream);
    check_data_is_free(layer, stream);
}

void check_plain_output(Layer& layer, const PlainFile& file) {
    const std::string identity = file_identity(file.name);
    if (identity.empty()) return;
    const FilesInUse used = files_in_use(layer);
    const auto refuse = [&](const std::string& what) {
        qaserr("%s: this is %s: %s\n", file.label.c_str(), what.c_str(), file.cure.c_str());
    };
    for (const auto& [user, header] : users_of(used.by_identity, identity))
        refuse((header ? "" : "the data file of ") + header_place(*user));
    if (const auto owner = used.plain.find(identity); owner != used.plain.end()) refuse(owner->second);
    const std::pair<std::FILE*, const char*> streams[] = {
        {layer.in, "the standard input"}, {layer.out, "the standard output"}, {layer.notes.err, "the standard error"}};
    for (const auto& [stream, what] : streams)
        if (identity == file_identity(::fileno(stream))) refuse(what);
}

}  // namespace qas
