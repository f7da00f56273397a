#pragma once
/// How the companions that make surveys write a dataset: axes and samples, in this order.

#include <array>
#include <cstddef>
#include <span>
#include <string>

#include "lib/corelibs/qas/session.h"

namespace morvane {

/// The file that a tag stands for.
std::string named(qas::Session& session, const std::string& tag);

/// Real is float or double: the header shows a value with the digits of its type.
template <class Real>
struct HeaderAxis {
    int n;
    Real d, o;
};

/// n#, d#, o# of the axes 1 to 4, and esize.
template <class Real>
void write_header(qas::Session& session, const std::string& tag, const std::array<HeaderAxis<Real>, 4>& axes,
                  int esize) {
    for (std::size_t k = 0; k < axes.size(); ++k) {
        const std::string number = std::to_string(k + 1);
        session.to_history("n" + number, axes[k].n, tag);
        session.to_history("d" + number, axes[k].d, tag);
        session.to_history("o" + number, axes[k].o, tag);
    }
    session.to_history("esize", esize, tag);
}

/// Appends bytes to the data of the tag. Errors (qas::Fatal): what cannot be written whole.
void write_bytes(qas::Session& session, const std::string& tag, std::span<const std::byte> bytes);

template <class T>
void write_samples(qas::Session& session, const std::string& tag, std::span<const T> samples) {
    write_bytes(session, tag, std::as_bytes(samples));
}

}  // namespace morvane
