#include "src/areal/wemva/start/consistency.h"

#include <errno.h>

#include <cstdio>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/areal/wemva/start/run_axes.h"

namespace morvane {

namespace {

/// The run ends with `text`; the numbers behind it go to standard error first.
template <class... Values>
[[noreturn]] void inconsistent(const char* text, const char* detail, Values... values) {
    std::fprintf(stderr, "%s: the values are: ", program_invocation_name);
    std::fprintf(stderr, detail, values...);
    std::fputc('\n', stderr);
    qas::qaserr("%s", text);
}

}  // namespace

void compare_data_and_source(const Parms& par) {
    const DatGrid &rec = par.rec, &sou = par.sou;
    if (sou.w.n != rec.w.n)
        inconsistent("# source freq. .ne. # receiver freq.", "n3=%d in sou, n3=%d in rec", sou.w.n, rec.w.n);
    if (sou.xd.n != 1) {
        if (sou.xd.n != rec.xd.n)
            inconsistent("# source planes. .ne. # receiver planes", "n4=%d in sou, n4=%d in rec", sou.xd.n, rec.xd.n);
        if (sou.h.n != rec.h.n)
            inconsistent("# source traces. .ne. # receiver traces", "n1=%d in sou, n1=%d in rec", sou.h.n, rec.h.n);
        if (sou.h.d != rec.h.d)
            inconsistent("source trace interval .ne. areal shot trace interval", "d1=%.9g in sou, d1=%.9g in rec",
                         sou.h.d, rec.h.d);
    }
    if (sou.w.d != rec.w.d)
        inconsistent("source freq.interval .ne. receiver freq.interval", "d3=%.9g in sou, d3=%.9g in rec", sou.w.d,
                     rec.w.d);
    if (sou.w.o != rec.w.o)
        inconsistent("source freq.origin .ne. receiver freq.origin", "o3=%.9g in sou, o3=%.9g in rec", sou.w.o,
                     rec.w.o);
}

void compare_perturbation_and_model(const Axis& z, const Axis& x, const Velo& v) {
    if (z.n != v.z.n)
        inconsistent("deltaS # depth samples .ne. velocity  ", "n3=%d in deltaS, n3=%d in vel", z.n, v.z.n);
    if (x.n != v.xm.n)
        inconsistent("deltaS # traces .ne. velocity interval ", "n1=%d in deltaS, n1=%d in vel", x.n, v.xm.n);
    if (z.d != v.z.d)
        inconsistent("deltaS depth interval .ne. velocity interval ", "d3=%.9g in deltaS, d3=%.9g in vel", z.d, v.z.d);
    if (x.d != v.xm.d)
        inconsistent("deltaS trace interval .ne. velocity interval ", "d1=%.9g in deltaS, d1=%.9g in vel", x.d, v.xm.d);
    if (z.o != v.z.o)
        inconsistent("deltaS depth origin .ne. velocity interval ", "o3=%.9g in deltaS, o3=%.9g in vel", z.o, v.z.o);
    if (x.o != v.xm.o)
        inconsistent("deltaS x origin .ne. velocity interval ", "o1=%.9g in deltaS, o1=%.9g in vel", x.o, v.xm.o);
}

void compare_image_and_model(const Parms& par) {
    const Axis &image = par.img.xm, &model = par.v.xm, &depth = par.v.z;
    if (model.o > image.o)
        inconsistent("Min.x-image space < Min.x-velocity",
                     "the image begins at %.9g (traces_in_taper=%d, padtraces=%d), vel at o1=%.9g", image.o,
                     par.tapertr, par.padtraces, model.o);
    if (end_of(image) > end_of(model))
        inconsistent("Max.x-image space > Max.x-velocity",
                     "the image ends at %.9g (traces_in_taper=%d, padtraces=%d), vel at %.9g", end_of(image),
                     par.tapertr, par.padtraces, end_of(model));
    if (depth.o > par.zmin)
        inconsistent("Min.z-image < Min.z-velocity", "zmin=%.9g, vel begins at o3=%.9g", par.zmin, depth.o);
    if (par.zmax > end_of(depth))
        inconsistent("Max.z-image > Max.z-velocity", "zmax=%.9g, vel ends at %.9g", par.zmax, end_of(depth));
}

}  // namespace morvane
