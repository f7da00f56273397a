#pragma once
/// A file that is written beside the one it replaces, and put into its place when it is complete.
#include <string>

#include "lib/corelibs/qas/files/files.h"

namespace qas {

/// Until commit(), the file in question stays as it is; without it, everything else goes again. Links are followed, and
/// permissions kept. Where no file can be made beside it, in a folder that is closed to the user, and for devices and
/// pipes, the file itself is emptied and written.
class Replacement {
    Descriptor target_;
    std::string name_, beside_;
    bool made_ = false;

public:
    Replacement() = default;
    Replacement(Replacement&&) = default;
    Replacement& operator=(Replacement&&) = default;
    ~Replacement();

    /// @param target the file to be replaced, open for writing and locked
    /// @param made   whether it was made for this
    /// @return what to write to; empty, errno set, if there is nothing
    Descriptor begin(Descriptor target, bool made);
    /// The file to be replaced; -1: none.
    int target() const { return target_.get(); }
    /// Puts what was written, and is on the disk, into its place. False, errno set, if that fails.
    bool commit();
};

}  // namespace qas
