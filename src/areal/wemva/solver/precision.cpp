#include "src/areal/wemva/solver/precision.h"

namespace morvane::solver {

double dpmeps() {
    // volatile: each intermediate result is rounded to double precision, and nothing is folded by the compiler.
    volatile double a = 1;
    volatile double b = 1;
    volatile double sum = 0;
    volatile double back = 0;
    do {  // the first power of two whose unit in the last place exceeds 1
        a = a + a;
        sum = a + 1;
        back = sum - a;
    } while (back - 1 == 0);
    int ibeta = 0;  // radix
    do {
        b = b + b;
        sum = a + b;
        ibeta = static_cast<int>(sum - a);
    } while (ibeta == 0);
    const double beta = ibeta;
    int it = 0;  // digits
    b = 1;
    do {
        ++it;
        b = b * beta;
        sum = b + 1;
        back = sum - b;
    } while (back - 1 == 0);
    int irnd = 0;
    sum = a + beta / 2;
    if (sum - a != 0) irnd = 1;
    const volatile double next = a + beta;
    sum = next + beta / 2;
    if (irnd == 0 && sum - next != 0) irnd = 2;
    a = 1;
    for (int i = 0; i < it + 3; ++i) a = a / beta;
    sum = 1 + a;
    while (sum - 1 == 0) {
        a = a * beta;
        sum = 1 + a;
    }
    if (ibeta != 2 && irnd != 0) {
        const double smaller = a * (1 + a) / 2;
        sum = 1 + smaller;
        if (sum - 1 != 0) a = smaller;
    }
    return a;
}

}  // namespace morvane::solver
