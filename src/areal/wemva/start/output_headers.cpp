#include "src/areal/wemva/start/output_headers.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <string>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/start/run_axes.h"

namespace morvane {

namespace {

void write_axis(qas::Session& session, std::string_view tag, int number, int n, float d, float o) {
    const std::string k = std::to_string(number);
    session.to_history<int>("n" + k, n, tag);
    session.to_history<float>("d" + k, d, tag);
    session.to_history<float>("o" + k, o, tag);
}

void write_axis(qas::Session& session, std::string_view tag, int number, const Axis& axis) {
    write_axis(session, tag, number, axis.n, axis.d, axis.o);
}

void write_unit_axis(qas::Session& session, std::string_view tag, int number) {
    const std::string k = std::to_string(number);
    session.to_history<int>("n" + k, 1, tag);
    session.to_history<int>("d" + k, 1, tag);
    session.to_history<int>("o" + k, 0, tag);
}

void print_line(std::string_view text) {
    std::fprintf(stderr, " %.*s\n", static_cast<int>(text.size()), text.data());
}

template <class T>
void print_value(std::string_view label, T value) {
    std::array<char, 64> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), value).ptr;
    print_line(std::string(label) + std::string(digits.begin(), end));
}

void end_group() {
    std::fputc('\n', stderr);
}

void print_title(std::string_view title) {
    print_line(title);
    print_line(std::string(title.size(), '='));
}

}  // namespace

void write_model_shape(qas::Session& session, const Parms& par, std::string_view tag) {
    write_axis(session, tag, 1, par.img.xm);
    write_axis(session, tag, 2, 1, 1.0f, 0.0f);
    write_axis(session, tag, 3, par.nz, par.img.z.d, par.zmin);
    write_unit_axis(session, tag, 4);
    write_unit_axis(session, tag, 5);
    session.to_history<int>("esize", 4, tag);
}

void write_image_shape(qas::Session& session, const Parms& par, std::string_view tag) {
    write_axis(session, tag, 1, par.img.xm);
    write_axis(session, tag, 2, par.timeshift ? par.img.th : par.img.sh);
    write_axis(session, tag, 3, par.nz, par.img.z.d, par.zmin);
    write_unit_axis(session, tag, 4);
    write_unit_axis(session, tag, 5);
    session.to_history<int>("esize", 4, tag);
}

void write_wavefield_shape(qas::Session& session, const Parms& par, std::string_view tag) {
    write_axis(session, tag, 1, par.kxm.n, par.img.xm.d, par.img.xm.o);
    write_axis(session, tag, 2, par.nz, par.img.z.d, par.zmin);
    write_unit_axis(session, tag, 3);
    write_unit_axis(session, tag, 4);
    write_axis(session, tag, 5, par.rec.w);
    session.to_history<int>("esize", 8, tag);
}

namespace {

void print_data_axes(const Parms& par) {
    print_line("============");
    print_title("HEADER WORDS");
    print_title("SHOTS");
    print_value("number of recv  = ", par.rec.h.n);
    print_value("recv spacing    = ", par.rec.h.d);
    print_value("min.recv offset = ", par.rec.h.o);
    print_value("number of freq  = ", par.rec.w.n);
    print_value("freq spacing    = ", par.rec.w.d / (2.0f * pi_f));
    print_value("minimum freq    = ", par.rec.w.o / (2.0f * pi_f));
    print_value("number of shots = ", par.rec.xd.n);
    print_value("shot spacing    = ", par.rec.xd.d);
    print_value("min.shot-x      = ", par.rec.xd.o);
    end_group();

    print_title("SOURCE FUNCTION");
    print_value("no.of traces    = ", par.sou.h.n);
    print_value("trace spacing   = ", par.sou.h.d);
    print_value("min.trace-x     = ", par.sou.h.o);
    print_value("number of freq  = ", par.sou.w.n);
    print_value("freq spacing    = ", par.sou.w.d);
    print_value("minimum freq    = ", par.sou.w.o);
    print_value("no.of s.fnct    = ", par.sou.xd.n);
    print_value("s.fnct spacing  = ", par.sou.xd.d);
    print_value("min.s.fnct-x    = ", par.sou.xd.o);
    end_group();
}

void print_model_axes(const Parms& par) {
    print_title("VELOCITY MODEL");
    print_value("no.of traces    = ", par.v.xm.n);
    print_value("trace spacing   = ", par.v.xm.d);
    print_value("min.trace-x     = ", par.v.xm.o);
    print_value("no.depth samples= ", par.v.z.n);
    print_value("depth interval  = ", par.v.z.d);
    print_value("minimum depth   = ", par.v.z.o);
    end_group();
}

void print_image_axes(const Parms& par) {
    print_title("IMAGE SPACE");
    print_value("no.of traces    = ", par.img.xm.n);
    print_value("trace spacing   = ", par.img.xm.d);
    print_value("min.trace-x     = ", par.img.xm.o);
    if (par.timeshift) {
        print_value("no.timeshifts   = ", par.img.th.n);
        print_value("time interval   = ", par.img.th.d);
        print_value("time origin     = ", par.img.th.o);
    } else {
        print_value("no.of offsets    = ", par.img.sh.n);
        print_value("offset spacing   = ", par.img.sh.d);
        print_value("offset origin     = ", par.img.sh.o);
    }
    print_value("no.depth samples= ", par.img.z.n);
    print_value("depth interval  = ", par.v.z.d);
    print_value("minimum depth   = ", par.img.z.o);
    end_group();
}

}  // namespace

void print_summary(const Parms& par) {
    print_line("   PARM   ");
    print_line("==========");
    print_title("PARAMETERS");
    print_value("no.ref.velocities   = ", par.nref);
    print_value("min.x-coord         = ", par.img.xm.o);
    print_value("max.x-coord         = ", end_of(par.img.xm));
    print_value("min.y-coord         = ", par.kept.ymin);
    print_value("max.y-coord         = ", par.kept.ymax);
    print_value("min.depth           = ", par.zmin);
    print_value("max.depth           = ", par.zmax);
    print_value("traces in taper     = ", par.tapertr);
    print_value("padded traces       = ", par.padtraces);
    end_group();
    print_data_axes(par);
    print_model_axes(par);
    print_image_axes(par);
    print_title("WAVENUMBER");
    print_value("no.wavenumbers  = ", par.kxm.n);
    print_value("waveno.spacing  = ", par.kxm.d);
    print_value("waveno.origin   = ", par.kxm.o);
    print_line("*****************************************************");
}

}  // namespace morvane
