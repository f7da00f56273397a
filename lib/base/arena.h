#pragma once
/// Memory for work arrays that are taken over and over in the same sizes.
#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include "lib/base/array.h"

namespace morvane {

/// Hands out work arrays; rewind() takes them all back and keeps the memory, so that the next round costs neither an
/// allocation nor the page faults of fresh memory. For one thread at a time.
class Arena {
public:
    /// An array that starts on a cache line and lives until rewind(). Its samples hold whatever was there before.
    /// Errors: std::bad_alloc.
    template <class T, std::integral... I>
    View<T, sizeof...(I)> take(I... n) {
        static_assert(std::is_trivially_copyable_v<T> && alignof(T) <= line);
        View<T, sizeof...(I)> view{nullptr, {static_cast<std::ptrdiff_t>(n)...}};
        view.p = static_cast<T*>(take_bytes((view.flat().size_bytes() + line - 1) / line * line));
        return view;
    }

    /// Invalidates every array taken. Memory that came in several pieces is replaced by one piece of the same size.
    void rewind() {
        if (pieces_.size() > 1) {
            pieces_.clear();
            add_piece(total_);
        }
        used_ = 0;
    }

private:
    static constexpr std::size_t line = 64;
    struct Free {
        void operator()(void* p) const { ::operator delete (p, std::align_val_t{line}); }
    };
    struct Piece {
        std::unique_ptr<void, Free> memory;
        std::size_t size = 0;
    };

    void add_piece(std::size_t bytes) {
        pieces_.push_back({std::unique_ptr<void, Free>(::operator new (bytes, std::align_val_t{line})), bytes});
        used_ = 0;
    }
    void* take_bytes(std::size_t bytes) {
        if (pieces_.empty() || bytes > pieces_.back().size - used_) {
            add_piece(bytes);
            total_ += bytes;
        }
        void* const start = static_cast<std::byte*>(pieces_.back().memory.get()) + used_;
        used_ += bytes;
        return start;
    }

    std::vector<Piece> pieces_;
    std::size_t used_ = 0;   // bytes of the last piece
    std::size_t total_ = 0;  // bytes of all pieces
};

}  // namespace morvane
