#pragma once
/// Dot-product test of a linear operator.
#include <cmath>
#include <random>
#include <span>
#include <vector>

/// <a, b> and |a| in double precision.
template <class T>
double inner(std::span<const T> a, std::span<const T> b) {
    double sum = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
    return sum;
}
template <class T>
double norm(std::span<const T> a) {
    return std::sqrt(inner(a, a));
}

template <class T>
std::vector<T> random_vector(std::size_t n, unsigned seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<double> normal;
    std::vector<T> x(n);
    for (T& v : x) v = static_cast<T>(normal(engine));
    return x;
}

/// |<Ax,y> - <x,A'y>| / (|Ax||y| + |x||A'y|): <Ax,y> alone may be near zero by chance.
template <class T>
double mismatch(std::span<const T> x, std::span<const T> ax, std::span<const T> y, std::span<const T> aty) {
    const double scale = norm(ax) * norm(y) + norm(x) * norm(aty);
    return std::abs(inner(ax, y) - inner(x, aty)) / scale;
}

/// The mismatch of op(adj, add, x, y) with nx model and ny data samples, on random vectors.
template <class T = float, class Op>
double dot_mismatch(Op&& op, std::size_t nx, std::size_t ny) {
    const std::vector<T> x = random_vector<T>(nx, 1), y = random_vector<T>(ny, 2);
    std::vector<T> ax(ny, T(7)), aty(nx, T(7)), in_x = x, in_y = y;
    op(false, false, std::span<T>(in_x), std::span<T>(ax));
    op(true, false, std::span<T>(aty), std::span<T>(in_y));
    return mismatch<T>(x, ax, y, aty);
}
