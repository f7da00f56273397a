#include "src/areal/wemva/restart/checkpoint_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/files/locks.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

/// A file with something in it; a run that was killed early leaves an empty one.
bool holds_something(const std::string& name) {
    std::error_code unknown;
    return std::filesystem::is_regular_file(name, unknown) && std::filesystem::file_size(name, unknown) > 0;
}

}  // namespace

CheckpointFile::CheckpointFile(qas::Session& session, const std::string& name)
    : name_(name),
      older_(name + ".1"),
      newer_(name + ".new"),
      existed_(holds_something(name_) || holds_something(older_)) {
    const std::string newest = qas::file_identity(name_);
    if (!newest.empty() && newest == qas::file_identity(older_))
        ::unlink(older_.c_str());  // killed between two renames
    for (const std::string& file : {name_, older_, newer_})
        claims_.push_back(session.claim_output({file, "checkpoint=" + name + ", file " + file}));
}

bool CheckpointFile::write_new(const Keep& keep) {
    qas::Descriptor fd(::open(newer_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (fd.get() < 0) return false;
    qas::lock_file(fd.get(), 0);
    ArchiveWriter archive(fd.get());
    keep(archive);
    if (!archive.finish() || !qas::sync_file(fd.get()) || !put_into_place()) return false;
    lock_ = std::move(fd);
    return true;
}

/// At any moment FILE or FILE.1 is whole.
bool CheckpointFile::put_into_place() const {
    if (newest_is_whole_ && holds_something(name_)) {
        if (::unlink(older_.c_str()) != 0 && errno != ENOENT) return false;
        if (::link(name_.c_str(), older_.c_str()) != 0 && ::rename(name_.c_str(), older_.c_str()) != 0) return false;
    }
    return ::rename(newer_.c_str(), name_.c_str()) == 0 && qas::sync_name(std::filesystem::absolute(name_));
}

void CheckpointFile::write(const Keep& keep) {
    claims_.clear();
    errno = 0;
    if (write_new(keep)) {
        usable_ = newest_is_whole_ = true;
        return;
    }
    const int reason = errno;
    ::unlink(newer_.c_str());
    warn("checkpoint=%s cannot be written: %s; the run goes on, and the checkpoint before it stays", name_.c_str(),
         std::strerror(reason));
}

void CheckpointFile::read(const Keep& restore) {
    std::string trouble;
    for (const std::string& name : {name_, older_}) {
        try {
            ArchiveReader archive(name);
            if (!trouble.empty()) warn("%s: going on from %s, the one before it", trouble.c_str(), name.c_str());
            restore(archive);
            usable_ = true;
            newest_is_whole_ = name == name_;
            return;
        } catch (const ArchiveError& error) {
            trouble += (trouble.empty() ? "checkpoint=" : "; ") + name + " " + error.reason;
        }
    }
    refuse("%s", trouble.c_str());
}

}  // namespace morvane
