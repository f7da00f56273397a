#include "src/areal/wemva/ow_fftw_areal.h"

#include <cassert>

namespace {

fftwf_complex* raw(cf* p) {
    return reinterpret_cast<fftwf_complex*>(p);  // same layout, by the standard
}

}  // namespace

FftPlan::FftPlan(int n, int sign, unsigned flags) {
    if (n % 2) flags |= FFTW_UNALIGNED;  // columns of odd length lie off the 16-byte boundary
    Array<cf, 1> scratch({n});           // planning overwrites its array
    plan_.reset(fftwf_plan_dft_1d(n, raw(scratch.view().p), raw(scratch.view().p), sign, flags));
}

void FftPlan::run(View<cf, 1> column) const {
    assert(column.n[0] % 2 || fftwf_alignment_of(reinterpret_cast<float*>(column.p)) == 0);
    fftwf_execute_dft(plan_.get(), raw(column.p), raw(column.p));
}

unsigned plan_flags(int nodes) {
    return nodes == 1 ? FFTW_ESTIMATE : FFTW_PATIENT;
}
