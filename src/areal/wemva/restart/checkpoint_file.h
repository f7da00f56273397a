#pragma once
/// The file that a run can be gone on with from: written beside and put into place, the one before it kept.
#include <functional>
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/restart/archive.h"

namespace morvane {

/// FILE, FILE.1 (the one before) and FILE.new (the one being written). They are no other program's and no other file of
/// the run.
class CheckpointFile {
public:
    using Keep = std::function<void(Archive&)>;

    /// Errors: one of the three names is a file of an input or output, or another program writes it.
    CheckpointFile(qas::Session& session, const std::string& name);
    /// Whether there was one to go on from when the run began.
    bool existed() const { return existed_; }
    /// Whether this run has written one, or read the one it goes on from.
    bool is_usable() const { return usable_; }
    /// @param keep hands everything over to the archive
    /// A file that cannot be written is warned about, and the old one stays.
    void write(const Keep& keep);
    /// Reads FILE or, with a warning, FILE.1 if that is gone or damaged.
    /// Errors: neither can be used; what is wrong with each.
    void read(const Keep& restore);

private:
    bool write_new(const Keep& keep);
    bool put_into_place() const;

    std::string name_, older_, newer_;
    bool existed_, usable_ = false;
    bool newest_is_whole_ = true;           // FILE, and so worth keeping as FILE.1
    std::vector<qas::PlainOutput> claims_;  // until the first is written
    qas::Descriptor lock_;                  // on the file that was written last
};

}  // namespace morvane
