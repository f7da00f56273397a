#pragma once
/// Dense linear algebra, the plain way.
#include <cmath>
#include <utility>
#include <vector>

template <class T>
using Rows = std::vector<std::vector<T>>;
using DenseMatrix = Rows<double>;

/// x of A x = b, by Gaussian elimination with pivoting.
template <class T>
std::vector<T> dense_solve(Rows<T> a, std::vector<T> b) {
    const std::size_t n = b.size();
    for (std::size_t k = 0; k < n; ++k) {
        std::size_t pivot = k;
        for (std::size_t i = k; i < n; ++i)
            if (std::abs(a[i][k]) > std::abs(a[pivot][k])) pivot = i;
        std::swap(a[k], a[pivot]);
        std::swap(b[k], b[pivot]);
        for (std::size_t i = k + 1; i < n; ++i) {
            const T factor = a[i][k] / a[k][k];
            for (std::size_t j = k; j < n; ++j) a[i][j] -= factor * a[k][j];
            b[i] -= factor * b[k];
        }
    }
    for (std::size_t k = n; k-- > 0;) {
        for (std::size_t j = k + 1; j < n; ++j) b[k] -= a[k][j] * b[j];
        b[k] /= a[k][k];
    }
    return b;
}
