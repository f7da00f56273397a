#pragma once
/// A run beside another one: nothing that the parameters name is written.
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

/// A folder of its own for the headers and panels that the set-up opens; gone with the run.
struct Scratch {
    std::filesystem::path path;
    Scratch() {
        std::string name = (std::filesystem::temp_directory_path() / "morvane_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) refuse("%s: no folder can be made there", name.c_str());
        path = name;
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    /// The user's words with every output sent here, and no checkpoint. The last word for a name wins.
    std::vector<std::string> redirected(std::vector<std::string> words) const {
        qas::Session given(words);
        for (const char* tag : {"course", "best", "accepted", "oper-fxdecon.H"})
            if (given.exist_file(tag)) words.push_back(std::string(tag) + "=" + (path / tag).string());
        for (const char* key : {"checkpoint", "resume"}) words.push_back(std::string(key) + "=");
        for (const char* tag : {"Velout", "grad", "bkgimg", "Dimage", "illum", "log", "list"})
            words.push_back(std::string(tag) + "=" + (path / tag).string());
        for (const char* tag : {"ddws", "ddwr", "dws", "dwr", "ddwsz", "ddwrz", "xxx", "zzz", "maskout"})
            words.push_back(std::string(tag) + "=");  // a bare name hides an earlier value
        words.push_back("datapath=" + path.string() + "/");
        words.push_back("stdout=" + (path / "history").string());
        return words;
    }
};

}  // namespace morvane
