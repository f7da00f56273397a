#include "lib/corelibs/qas/files/replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace qas {

Replacement::~Replacement() {
    if (!beside_.empty()) ::unlink(beside_.c_str());
    if (made_) ::unlink(name_.c_str());
}

Descriptor Replacement::begin(Descriptor target, bool made) {
    target_ = std::move(target);
    name_ = findnm(target_.get());
    made_ = made && !name_.empty();
    struct stat status {};
    if (!name_.empty() && ::fstat(target_.get(), &status) == 0) {
        beside_ = name_ + ".XXXXXX";
        Descriptor fd(::mkostemp(beside_.data(), O_CLOEXEC));
        if (fd.get() >= 0 && ::fchmod(fd.get(), status.st_mode & 07777) == 0) return fd;
        if (fd.get() >= 0) ::unlink(beside_.c_str());
        beside_.clear();
    }
    if (fdordinary(target_.get()) && ::ftruncate(target_.get(), 0) < 0) return {};
    return Descriptor(::fcntl(target_.get(), F_DUPFD_CLOEXEC, 0));
}

bool Replacement::commit() {
    made_ = false;
    if (beside_.empty()) return true;
    if (::rename(beside_.c_str(), name_.c_str()) < 0) return false;
    beside_.clear();
    return sync_name(name_);
}

}  // namespace qas
