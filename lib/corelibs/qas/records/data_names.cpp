#include "lib/corelibs/qas/records/data_names.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/history.h"

namespace qas {
namespace {

constexpr int max_files = 1000;
constexpr std::size_t max_path = 4096;
constexpr int default_dirsize = 9999000;  // megabytes
constexpr int default_filesize = 999999;

std::vector<std::string_view> words_of(std::string_view text) {
    constexpr std::string_view space = " \t\n\v\f\r";
    std::vector<std::string_view> words;
    for (std::size_t at = text.find_first_not_of(space); at != std::string_view::npos;) {
        const std::size_t end = std::min(text.find_first_of(space, at), text.size());
        words.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(space, end);
    }
    return words;
}

std::string short_host_name(Layer& layer) {
    struct utsname name;
    if (::uname(&name) < 0) {
        layer.notes.perror("trying to get hostname");
        qaserr(" Error calling uname ");
    }
    const std::string host = name.nodename;
    return host.substr(0, host.find_first_of(". "));
}

/// The prefix from a ".datapath" file, if there is such a file.
std::optional<std::string> path_from_file(Layer& layer, const std::string& name) {
    std::ifstream stream(name);
    if (!stream) return std::nullopt;
    std::string text(max_path * 16, '\0');  // a few lines are normal; what stands beyond 64 KiB is not read
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    try {
        return readpath(text, short_host_name(layer));
    } catch (const Fatal& error) {
        throw Fatal(error.what() + strprintf("\n  %s must start with datapath=DIRECTORY/\n", name.c_str()));
    }
}

void check_length(const DataPath& path) {
    if (path.prefix.size() > max_path)
        qaserr("datapath from %s: longer than %zu characters\n", path.source.c_str(), max_path);
}

/// Megabytes per directory or file: the list of `key`, its last value repeated up to `count` values.
std::vector<int> size_list(Layer& layer, const char* key, int otherwise, std::size_t count) {
    const Values given = getch(layer, key, "i", max_files);
    std::vector<int> sizes{otherwise};
    if (found(given)) sizes = std::get<std::vector<int>>(given);
    for (const int size : sizes)
        if (size < 1) qaserr("parameter %s: %d megabytes, must be at least 1\n", key, size);
    sizes.resize(std::max(sizes.size(), count), sizes.back());
    return sizes;
}

}  // namespace

DataPath datapath(Layer& layer) {
    DataPath path;
    if (const auto given = getch_text(layer, "datapath")) {
        path = {*given, "the parameter datapath"};
    } else if (const char* variable = std::getenv("DATAPATH")) {
        path = {variable, "the environment variable DATAPATH"};
    } else if (const auto here = path_from_file(layer, ".datapath")) {
        path = {*here, "the file .datapath in the current folder"};
    } else {
        const char* home = std::getenv("HOME");
        const std::string file = std::string(home ? home : "") + "/.datapath";
        if (const auto there = home ? path_from_file(layer, file) : std::nullopt) {
            path = {*there, "the file " + file};
        } else {
            path.source = "the default (no datapath=, DATAPATH or .datapath given)";
            path.by_default = true;
            const std::string user = user_name();
            if (!user.empty()) path.prefix = "/tmp//" + user + "/_";
        }
    }
    check_length(path);
    return path;
}

bool make_default_folder(const std::string& name) {
    return ::mkdir(name.substr(0, name.rfind('/')).c_str(), 0777) == 0;
}

std::string readpath(std::string_view text, std::string_view short_host) {
    constexpr std::string_view key = "datapath=";
    const std::vector<std::string_view> words = words_of(text);
    if (words.empty() || !words[0].starts_with(key) || words[0].size() == key.size())
        qaserr(" Error reading .datapath file");
    std::string_view path = words[0].substr(key.size());
    for (std::size_t i = 1; i + 1 < words.size(); i += 2) {
        if (!words[i + 1].starts_with(key) || words[i + 1].size() == key.size()) break;
        if (words[i] == short_host) path = words[i + 1].substr(key.size());
    }
    return std::string(path);
}

std::string makenames(Layer& layer, const std::string& prefix, const std::string& name, bool unique) {
    const int nfiles = getch_integer(layer, "nfiles", 1);
    if (nfiles > max_files) qaserr("nfiles to large, max %d \n", max_files);
    if (nfiles < 1) qaserr("parameter nfiles=%d: must be 1 to %d\n", nfiles, max_files);

    std::vector<std::string> directories;
    for (std::size_t at = 0; at <= prefix.size();) {
        const std::size_t end = std::min(prefix.find(';', at), prefix.size());
        directories.push_back(prefix.substr(at, end - at));
        at = end + 1;
    }
    const std::vector<int> dirsize = size_list(layer, "dirsize", default_dirsize, directories.size());
    const std::vector<int> filesize = size_list(layer, "filesize", default_filesize, static_cast<std::size_t>(nfiles));
    std::string names;
    std::size_t file = 0;
    for (std::size_t d = 0; d < directories.size(); ++d) {
        std::int64_t used = 0;
        for (; static_cast<int>(file) < nfiles && used < dirsize[d]; ++file) {
            used += filesize[file];
            std::string one = directories[d] + name + '@';
            if (file > 0) one += std::to_string(file);
            one = expand_name(one);
            if (unique) one = mkrandom_string(one);
            if (file > 0) names += ';';
            names += one;
        }
    }
    return names;
}

std::string expand_name(const std::string& name) {
    return name.starts_with("./") ? name : fullnm(name);
}

std::string fullnm(const std::string& name) {
    if (name.starts_with('/') || name.starts_with('$')) return name;
    char buffer[PATH_MAX];
    if (!::getcwd(buffer, sizeof buffer)) qaserr("fullnm(): %d, %s\n", errno, std::strerror(errno));
    std::string directory = buffer;
    constexpr std::string_view automounter = "/tmp_mnt";
    if (directory.starts_with(automounter)) directory.erase(0, automounter.size());
    return directory + '/' + name;
}

std::string envhead(const std::string& name) {
    if (!name.starts_with('$')) return {};
    return name.substr(1, std::min(name.find('/'), name.size()) - 1);
}

std::string expand_info(Layer& layer, const std::string& name, streaminf& stream) {
    const std::string variable = envhead(name);
    if (variable.empty()) return name;
    const std::string rest = name.substr(1 + variable.size());
    if (const char* value = std::getenv(variable.c_str())) return value + rest;
    if (const auto value = getch_variable(layer, variable)) return *value + rest;
    if (stream.headerbuf) {
        const Values value = qasstrpar(layer, stream, variable, "s", 1);
        if (found(value)) return std::get<std::string>(value) + rest;
    }
    qaserr("Unable to obtain pathname variable %s\n", variable.c_str());
}

std::string qas_tail(const std::string& name) {
    return name.substr(name.rfind('/') + 1);
}

std::string mkrandom_string(const std::string& base) {
    std::string name = base + "XXXXXX";
    const Descriptor fd(::mkstemp(name.data()));
    if (fd.get() >= 0)
        ::unlink(name.c_str());
    else
        name = base + strprintf("%06d", static_cast<int>(::getpid() % 1000000));
    return name;
}

}  // namespace qas
