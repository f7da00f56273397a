// morvane_prepare as a black box, on SEG-Y that segyio's Python module writes, and morvane on what comes out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "tests/dataset_files.h"

using testing::HasSubstr;
using testing::Not;

namespace {

/// The shots of morvane_synth as SEG-Y of revision 1: python3 THIS TRACES FILE FORMAT
constexpr const char* writer = R"(import re, sys
import numpy as np, segyio
text = open(sys.argv[1]).read()
h = lambda key: float(re.findall(r'\s%s=(\S+)' % key, text)[-1])
nt, nr, ns = int(h('n1')), int(h('n2')), int(h('n3'))
data = np.fromfile(sys.argv[1] + '@', '>f4').reshape(ns * nr, nt)
spec = segyio.spec()
spec.samples, spec.tracecount, spec.format = np.arange(nt) * h('d1') * 1000, ns * nr, int(sys.argv[3])
with segyio.create(sys.argv[2], spec) as f:
    for i in range(ns * nr):
        x = h('o3') + i // nr * h('d3')
        f.header[i] = {73: round(10 * x), 81: round(10 * (x + h('o2') + i % nr * h('d2'))), 71: -10, 29: 1,
                       115: nt, 117: round(h('d1') * 1e6)}
        f.trace[i] = data[i].astype('f4')
    f.bin[3221], f.bin[3217], f.bin[3501] = nt, round(h('d1') * 1e6), 256
)";

}  // namespace

TEST(PrepareProgram, FourCommandsFromModelledShotsToARun) {
    ASSERT_EQ(std::system("/usr/bin/python3 -c 'import segyio'"), 0) << "python3-segyio is missing: scripts/setup segy";
    const files::TempDir dir;
    files::write_text(dir / "write.py", writer);
    std::vector<std::string> model{"datapath=" + (dir / ""),
                                   "nshot=3",
                                   "oshot=200",
                                   "dshot=40",
                                   "nrec=30",
                                   "zmax=200",
                                   "nf=6",
                                   "of=8",
                                   "df=2",
                                   "tmax=0.35",
                                   "taper=4",
                                   "dv=0",
                                   "v0=2000",
                                   "zref=120",
                                   "margin=60",
                                   "absorb=10",
                                   "rotate=0",
                                   "true=true",
                                   "vel=vel",
                                   "rec=rec",
                                   "sou=sou",
                                   "traces=traces",
                                   "wavelet=wavelet"};
    ASSERT_EQ(files::run_program("morvane_synth", model, dir.text()).status, 0);
    for (const char* format : {"1", "5"}) {
        ASSERT_EQ(std::system(("cd " + dir.text() + " && /usr/bin/python3 write.py traces line.sgy " + format).c_str()),
                  0);
        const files::Outcome made =
            files::run_program("morvane_prepare",
                               {"segy=line.sgy", "v0=2000", "gradient=0.5", "data=2d", "mute=none", "end_taper=0",
                                "source=wavelet", "band_taper=0", "scale=wavelet", "fmin=8", "fmax=18", "df=2",
                                "zmax=200", "dz=10", "taper=4", "prefix=run/", "overwrite=y"},
                               dir.text());
        ASSERT_EQ(made.status, 0) << made.err;
        for (const char* tag : {"rec", "sou"}) {
            const std::vector<float> a = files::read_dataset(dir / ("run/" + std::string(tag) + ".H")),
                                     b = files::read_dataset(dir / tag);
            ASSERT_EQ(a.size(), b.size());
            double difference = 0, size = 0;
            for (std::size_t i = 0; i < a.size(); ++i) {
                difference += std::pow(static_cast<double>(a[i]) - static_cast<double>(b[i]), 2);
                size += std::pow(static_cast<double>(b[i]), 2);
            }
            EXPECT_LT(difference, 1e-8 * size) << tag;
        }
    }
    const files::Outcome run = files::run_program("morvane", {"par=run/morvane.par", "niter=1"}, dir.text());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("result: panel 2 of Velout (run/velocity.H)"));
    EXPECT_THAT(run.err, HasSubstr("(best=run/best.H)"));
    EXPECT_TRUE(std::filesystem::exists(dir / "run/course.csv"));
    const files::Outcome plain = files::run_program(
        "morvane_prepare",
        {"segy=line.sgy", "v0=2000", "data=2d", "mute=none", "zmax=200", "dz=10", "settings=plain", "prefix=plain/"},
        dir.text());
    EXPECT_EQ(plain.status, 0) << plain.err;
    std::ifstream parameters(dir / "plain/morvane.par");
    const std::string all{std::istreambuf_iterator<char>(parameters), {}};
    EXPECT_THAT(all, HasSubstr("extrapolator=pspi nrefvel=1"));
    EXPECT_THAT(all, Not(HasSubstr("stop=fit")));
    const files::Outcome bad =
        files::run_program("morvane_prepare", {"segy=nothing.sgy", "v0=2000", "prefix=bad/"}, dir.text());
    EXPECT_EQ(bad.status, 23);
    EXPECT_THAT(bad.err, HasSubstr("nothing.sgy: there is no such file"));
    EXPECT_FALSE(std::filesystem::exists(dir / "bad"));
}
