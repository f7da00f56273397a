#pragma once
/// Views and arrays of N indices from 0, first index fastest, and the complex sample type.
#include <algorithm>
#include <array>
#include <cassert>
#include <complex>
#include <concepts>
#include <cstddef>
#include <functional>
#include <new>
#include <numeric>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

namespace morvane {

using cf = std::complex<float>;

/// Real and imaginary parts in turn, for loops over them: the layout is the standard's.
inline float* parts(cf* z) {
    return reinterpret_cast<float*>(z);
}
inline const float* parts(const cf* z) {
    return reinterpret_cast<const float*>(z);
}

template <std::size_t N>
using Extents = std::array<std::ptrdiff_t, N>;

/// A borrowed block of samples: a pointer and N extents. Passed by value; owns nothing.
template <class T, std::size_t N>
struct View {
    T* p = nullptr;
    Extents<N> n{};

    /// Sample at the given indices, each in 0..n-1 (asserted in builds without NDEBUG).
    template <std::integral... I>
    requires(sizeof...(I) == N) T& operator()(I... i) const {
        const Extents<N> at{static_cast<std::ptrdiff_t>(i)...};
        std::ptrdiff_t offset = 0;
        for (std::size_t d = N; d-- > 0;) {
            assert(0 <= at[d] && at[d] < n[d]);
            offset = offset * n[d] + at[d];
        }
        return p[offset];
    }
    std::ptrdiff_t size() const { return std::accumulate(n.begin(), n.end(), std::ptrdiff_t{1}, std::multiplies<>()); }
    std::span<T> flat() const { return {p, static_cast<std::size_t>(size())}; }
    /// The part with the last index fixed.
    View<T, N - 1> slice(std::ptrdiff_t last) const requires(N > 1) {
        assert(0 <= last && last < n[N - 1]);
        View<T, N - 1> part;
        std::copy_n(n.begin(), N - 1, part.n.begin());
        part.p = p + last * part.size();
        return part;
    }
    operator View<const T, N>() const requires(!std::is_const_v<T>) { return {p, n}; }
};

/// Storage on cache-line boundaries, so that columns of a multiple of eight samples start where SIMD loads like them.
template <class T>
struct CacheLineAllocator {
    using value_type = T;
    static constexpr std::align_val_t line{64};
    CacheLineAllocator() = default;
    template <class U>
    CacheLineAllocator(const CacheLineAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), line)); }
    void deallocate(T* p, std::size_t) { ::operator delete(p, line); }
    bool operator==(const CacheLineAllocator&) const { return true; }
};

/// An owned block of samples. Starts at zero; a copy is deep.
template <class T, std::size_t N>
class Array {
    std::vector<T, CacheLineAllocator<T>> buf_;
    Extents<N> n_{};

public:
    explicit Array(const Extents<N>& n = {}) : buf_(static_cast<std::size_t>(View<T, N>{nullptr, n}.size())), n_(n) {}
    operator View<T, N>() { return {buf_.data(), n_}; }
    operator View<const T, N>() const { return {buf_.data(), n_}; }
    View<T, N> view() { return *this; }
    View<const T, N> view() const { return *this; }
    template <std::integral... I>
    T& operator()(I... i) {
        return view()(i...);
    }
    template <std::integral... I>
    const T& operator()(I... i) const {
        return view()(i...);
    }
    std::span<T> flat() { return view().flat(); }
    std::span<const T> flat() const { return view().flat(); }
    Extents<N> n() const { return n_; }
    void fill(const T& value) { std::fill(buf_.begin(), buf_.end(), value); }
};

}  // namespace morvane
