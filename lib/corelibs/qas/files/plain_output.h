#pragma once
/// Text files that a program writes beside its datasets: logs, reports, parameter files.
#include <cstdint>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/replacement.h"

namespace qas {

/// A file that a program reads or writes itself, for messages and checks.
struct PlainFile {
    std::string name;
    std::string label;  ///< what it is called in messages, "log=run.log"
    std::string cure = "give it another name";
    bool replaced = false;  ///< an output that is written beside what it replaces, and put into place by finish()
};

/// An output of this kind, from Session::claim_output. It is open, and locked against other programs, from the start;
/// what it holds stays until begin(). One that was made and never begun goes again.
class PlainOutput {
    PlainFile file_;
    Descriptor fd_;
    Replacement replacement_;
    bool made_ = false, begun_ = false;
    std::int64_t size_ = 0;

    [[noreturn]] void refuse(const char* what) const;

public:
    PlainOutput() = default;
    /// Errors: "LABEL: cannot create this file: reason"; another program writes it.
    PlainOutput(PlainFile file, int patience_ms);
    PlainOutput(PlainOutput&&) = default;
    PlainOutput& operator=(PlainOutput&&) = default;
    ~PlainOutput();

    /// Empties the file.
    void begin();
    /// In place of begin(): cuts the file back to `bytes`, and goes on from there. Errors: it holds fewer.
    void resume(std::int64_t bytes);
    /// The size of the file, once that is on the disk; it stays open.
    std::int64_t sync();
    /// Appends a text, whole or, with an error, not at all; the first begins the file.
    void write(std::string_view text);
    /// Puts the file on the disk and closes it.
    void finish();
};

}  // namespace qas
