#include "src/areal/wemva/step/ow_fftw_areal.h"

#include <cassert>

namespace morvane {

namespace {

fftwf_complex* raw(cf* p) {
    return reinterpret_cast<fftwf_complex*>(p);  // same layout, by the standard
}

}  // namespace

FftPlan::FftPlan(int n, int sign, unsigned flags) {
    if (n % 2) flags |= FFTW_UNALIGNED;  // columns of odd length lie off the 16-byte boundary
    Array<cf, 1> from({n}), to({n});     // planning overwrites its arrays
    plan_.reset(fftwf_plan_dft_1d(n, raw(from.view().p), raw(to.view().p), sign, flags | FFTW_PRESERVE_INPUT));
}

void FftPlan::run(View<const cf, 1> from, View<cf, 1> to) const {
    fftwf_complex *const in = raw(const_cast<cf*>(from.p)), *const out = raw(to.p);  // the input is preserved
    assert(from.n[0] % 2 || (fftwf_alignment_of(*in) == 0 && fftwf_alignment_of(*out) == 0));
    fftwf_execute_dft(plan_.get(), in, out);
}

unsigned plan_flags(int nodes) {
    return nodes == 1 ? FFTW_ESTIMATE : FFTW_PATIENT;
}

}  // namespace morvane
