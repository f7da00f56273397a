#include "src/areal/wemva/solver/dense.h"

#include <cmath>

namespace morvane::solver {

double ddot(std::ptrdiff_t n, const double* x, const double* y) {
    constexpr std::ptrdiff_t lanes = 8;
    double sum[lanes] = {};
    std::ptrdiff_t i = 0;
    for (; i + lanes <= n; i += lanes) {
        for (std::ptrdiff_t k = 0; k < lanes; ++k) sum[k] += x[i + k] * y[i + k];
    }
    double rest = 0;
    for (; i < n; ++i) rest += x[i] * y[i];
    return ((sum[0] + sum[4]) + (sum[2] + sum[6])) + ((sum[1] + sum[5]) + (sum[3] + sum[7])) + rest;
}

void daxpy(std::ptrdiff_t n, double a, const double* x, double* y) {
    for (std::ptrdiff_t i = 0; i < n; ++i) y[i] += a * x[i];
}

void dscal(std::ptrdiff_t n, double a, double* x) {
    for (std::ptrdiff_t i = 0; i < n; ++i) x[i] *= a;
}

int dpofa(double* a, int lda, int n) {
    const auto column = [&](int j) { return a + static_cast<std::ptrdiff_t>(j) * lda; };
    for (int j = 0; j < n; ++j) {
        double* aj = column(j);
        double s = 0;
        for (int k = 0; k < j; ++k) {
            const double* ak = column(k);
            aj[k] = (aj[k] - ddot(k, ak, aj)) / ak[k];
            s += aj[k] * aj[k];
        }
        s = aj[j] - s;
        if (!(s > 0)) return j + 1;  // not-a-number fails too
        aj[j] = std::sqrt(s);
    }
    return 0;
}

int dtrsl(const double* t, int ldt, int n, double* b, int job) {
    const auto column = [&](int j) { return t + static_cast<std::ptrdiff_t>(j) * ldt; };
    for (int j = 0; j < n; ++j) {
        if (column(j)[j] == 0) return j + 1;
    }
    const bool upper = job % 10 != 0;
    const bool transposed = job % 100 / 10 != 0;
    // T x = b takes columns, T'x = b rows of T', which are the same columns: memory is walked with unit stride.
    if (upper && !transposed) {
        for (int j = n - 1; j >= 0; --j) {
            b[j] /= column(j)[j];
            daxpy(j, -b[j], column(j), b);
        }
    } else if (upper) {
        for (int j = 0; j < n; ++j) b[j] = (b[j] - ddot(j, column(j), b)) / column(j)[j];
    } else if (!transposed) {
        for (int j = 0; j < n; ++j) {
            b[j] /= column(j)[j];
            daxpy(n - 1 - j, -b[j], column(j) + j + 1, b + j + 1);
        }
    } else {
        for (int j = n - 1; j >= 0; --j) b[j] = (b[j] - ddot(n - 1 - j, column(j) + j + 1, b + j + 1)) / column(j)[j];
    }
    return 0;
}

}  // namespace morvane::solver
