#pragma once
/// Vectors of numbers that compile to SIMD registers, or to several where the machine's are shorter. Arithmetic is lane
/// by lane, as on a number.

namespace morvane {

template <class Real, int n>
struct VectorOf {
    typedef Real type __attribute__((vector_size(n * sizeof(Real))));
};
/// n lanes of float or double, n a power of two.
template <class Real, int n>
using Vector = typename VectorOf<Real, n>::type;

using Float4 = Vector<float, 4>;
using Float8 = Vector<float, 8>;
using Float16 = Vector<float, 16>;

}  // namespace morvane
