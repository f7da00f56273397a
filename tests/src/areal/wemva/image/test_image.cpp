#include <gtest/gtest.h>

#include "src/areal/wemva/image/offset_band.h"
#include "src/areal/wemva/image/ow_image_areal.h"
#include "src/areal/wemva/step/ow_scttr_areal.h"
#include "tests/dot_test.h"
#include "tests/src/areal/wemva/step/direct_step.h"
#include "tests/src/areal/wemva/step/wave_case.h"

using namespace morvane;

namespace {

struct Fields {
    Array<cf, 1> ws, wr;
    explicit Fields(int nx) : ws({nx}), wr({nx}) {
        randomize(ws.flat(), 11);
        randomize(wr.flat(), 12);
    }
};

/// The image by the double loop over samples and offsets.
Array<float, 2> direct_image(const Parms& par, const std::vector<int>& h, const Fields& f, cd phase) {
    const std::ptrdiff_t nx = par.kxm.n;
    Array<float, 2> image({nx, static_cast<std::ptrdiff_t>(h.size())});
    for (std::ptrdiff_t x = 0; x < nx; ++x) {
        for (std::size_t k = 0; k < h.size(); ++k) {
            const std::ptrdiff_t s = x - h[k], r = x + h[k];
            if (std::min(s, r) < 0 || std::max(s, r) >= nx) continue;
            image(x, k) = static_cast<float>((std::conj(cd(f.ws(s))) * cd(f.wr(r)) * phase).real());
        }
    }
    return image;
}

}  // namespace

TEST(Image, OffsetsTakeTheSourceBeforeAndTheReceiverBehind) {
    struct Row {
        const char* fault;
        int nh;
        float dh, oh;
        std::vector<int> h;
    };
    for (const Row& row :
         {Row{"zero lag", 1, 10, 0, {0}}, Row{"both signs", 5, 10, -20, {-2, -1, 0, 1, 2}},
          Row{"halves round away from zero", 3, 5, -5, {-1, 0, 1}}, Row{"origin off the grid", 2, 20, 14, {1, 3}},
          Row{"wider than the line", 2, 500, 0, {0, 50}}}) {
        SCOPED_TRACE(row.fault);
        for (const bool migration : {false, true}) {
            Parms par = WaveCase{.nx = 13}.parms();
            par.img.sh = {row.nh, row.dh, row.oh, {}};
            par.migration = migration;
            const ImageCondition condition(par);
            EXPECT_EQ(condition.ihso, row.h);
            const Fields f(13);
            Array<float, 2> image({13, row.nh});
            ImageScratch scratch(13);
            owimage_forward(condition, 1, f.ws.view(), f.wr.view(), image, scratch);
            const double w = par.rec.w.all[1];
            const cd phase = migration ? std::polar(std::sqrt(w), -std::numbers::pi / 4) : cd(1.0);
            const Array<float, 2> expected = direct_image(par, row.h, f, phase);
            EXPECT_LT(relative_difference<float>(image.flat(), expected.flat()), 1e-6);
        }
    }
}

TEST(Image, TimeShiftsTurnTheCorrelation) {
    Parms par = WaveCase{.nx = 7}.parms();
    par.timeshift = true;
    par.img.th = {5, 0.004f, -0.008f, {}};
    const ImageCondition condition(par);
    const Fields f(7);
    Array<float, 2> image({7, 5});
    ImageScratch scratch(7);
    owimage_forward(condition, 2, f.ws.view(), f.wr.view(), image, scratch);
    const double w = par.rec.w.all[2];
    for (std::ptrdiff_t x = 0; x < 7; ++x) {
        for (std::ptrdiff_t t = 0; t < 5; ++t) {
            const double a = 2 * (static_cast<double>(t) * 0.004 - 0.008) * w;
            EXPECT_NEAR(image(x, t), (cd(f.wr(x)) * std::conj(cd(f.ws(x))) * std::polar(1.0, a)).real(), 2e-5);
        }
    }
    Array<cf, 1> source({7}), receiver({7});  // one image sample: both sides turn by exp(-i a)
    Array<float, 2> one({7, 5});
    one(3, 4) = 2.0f;
    const cd turn = std::polar(1.0, -2 * 0.008 * w);
    owimage_adjoint(condition, 2, Spread::source, f.wr.view(), one.view(), source, scratch);
    owimage_adjoint(condition, 2, Spread::receiver, f.ws.view(), one.view(), receiver, scratch);
    EXPECT_LT(std::abs(cd(source(3)) - 2.0 * cd(f.wr(3)) * turn), 1e-5);
    EXPECT_LT(std::abs(cd(receiver(3)) - 2.0 * cd(f.ws(3)) * turn), 1e-5);
}

TEST(Image, EitherSideIsTheTransposeOfTheForwardImage) {
    for (const auto& [nx, nh] : {std::pair(16, 1), {17, 9}, {1, 1}, {32, 4}, {33, 5}, {70, 41}, {97, 99}}) {
        Parms par = WaveCase{.nx = nx, .nh = nh}.parms();
        const ImageCondition condition(par);
        const Fields f(nx);
        ImageScratch scratch(nx);
        Array<float, 2> y({nx, nh});
        randomize(y.flat(), 9);
        for (const Spread side : {Spread::source, Spread::receiver}) {
            Array<cf, 1> x({nx}), back({nx});
            randomize(x.flat(), 13);
            Array<float, 2> ax({nx, nh});
            const bool source = side == Spread::source;
            owimage_forward(condition, 0, source ? x.view() : f.ws.view(), source ? f.wr.view() : x.view(), ax,
                            scratch);
            owimage_adjoint(condition, 0, side, source ? f.wr.view() : f.ws.view(), y.view(), back, scratch);
            const auto parts = [](std::span<const cf> z) {
                return std::span<const float>(reinterpret_cast<const float*>(z.data()), 2 * z.size());
            };
            EXPECT_LT(mismatch<float>(parts(x.flat()), ax.flat(), y.flat(), parts(back.flat())), 1e-6) << nh;
        }
    }
}

namespace {

struct Band {
    int nx, nh, samples, first;  // samples between offsets; the first offset, in samples
    bool rotated;
};
const Band bands[] = {{33, 9, 1, -4, false}, {64, 21, 1, -10, true},  {70, 81, 1, -40, false}, {17, 8, 1, 0, false},
                      {40, 11, 2, -9, true}, {50, 16, 3, -24, false}, {23, 10, 1, -30, false}, {9, 12, 1, 20, false},
                      {1, 8, 1, -4, false},  {130, 97, 1, -48, false}};

struct BandCase {
    static constexpr int frequencies = 13;
    Parms par;
    Array<cf, 2> ws, wr;
    std::vector<cf> phase;
    explicit BandCase(const Band& band)
        : par(WaveCase{.nx = band.nx, .nw = frequencies, .nh = band.nh}.parms()),
          ws({band.nx, frequencies}),
          wr({band.nx, frequencies}) {
        par.migration = band.rotated;
        par.img.sh.d = static_cast<float>(band.samples) * par.img.xm.d;
        par.img.sh.o = static_cast<float>(band.first) * par.img.xm.d;
        randomize(ws.flat(), 5);
        randomize(wr.flat(), 6);
        for (int iw = 0; iw < frequencies; ++iw) phase.push_back(ImageCondition(par).receiver_phase(iw));
    }
};

}  // namespace

TEST(OffsetBand, SumsTheFrequenciesOfABlockAsTheImageDoes) {
    for (const Band& shape : bands) {
        BandCase c(shape);
        const ImageCondition condition(c.par);
        const OffsetBand band(condition, shape.nx);
        ASSERT_TRUE(band.serves());
        Arena arena;
        BandKernels kernels(band, arena);
        std::vector<float> slice(static_cast<std::size_t>(band.size()));
        kernels.load(c.ws, c.wr, c.phase.data());
        for (int time = 0; time < 2; ++time) kernels.add(slice.data(), nullptr);
        Array<float, 2> image({shape.nx, shape.nh}), expected({shape.nx, shape.nh});
        image.fill(1.0f);
        band.add_to(slice.data(), image);
        ImageScratch scratch(shape.nx);
        for (int time = 0; time < 2; ++time)
            for (int iw = 0; iw < BandCase::frequencies; ++iw)
                owimage_forward(condition, iw, c.ws.view().slice(iw), c.wr.view().slice(iw), expected, scratch);
        for (float& v : expected.flat()) v += 1.0f;
        EXPECT_LT(relative_difference<float>(image.flat(), expected.flat()), 1e-6) << shape.nx << ' ' << shape.nh;
    }
}

TEST(OffsetBand, SpreadsOntoEitherSideAsTheTransposeDoes) {
    for (const Band& shape : bands) {
        BandCase c(shape);
        const ImageCondition condition(c.par);
        const OffsetBand band(condition, shape.nx);
        Arena arena;
        const BandKernels kernels(band, arena);
        Array<float, 2> image({shape.nx, shape.nh});
        randomize(image.flat(), 7);
        std::vector<float> slice(static_cast<std::size_t>(band.size()), 99.0f);
        band.take(image, slice.data());
        const std::vector<float> taper(static_cast<std::size_t>(shape.nx), 1.0f);
        ImageScratch scratch(shape.nx);
        Array<float, 3> known({lane_count, 2, shape.nx}), sum({lane_count, 2, shape.nx});
        for (const Spread side : {Spread::source, Spread::receiver}) {
            const bool source = side == Spread::source;
            const Array<cf, 2>& other = source ? c.wr : c.ws;
            Array<cf, 2> turned = other, out({shape.nx, BandCase::frequencies}), expected = out;
            for (int iw = 0; iw < BandCase::frequencies; ++iw) {
                const cf phase = c.phase[static_cast<std::size_t>(iw)];
                for (cf& z : turned.view().slice(iw).flat()) z *= source ? phase : std::conj(phase);
                owimage_transpose(condition, iw, side, {taper.data(), {shape.nx}}, other.view().slice(iw), image.view(),
                                  expected.view().slice(iw), scratch);
            }
            to_lanes(turned, known);
            kernels.spread(side, known.view(), BandCase::frequencies, slice.data(), sum, slice.data());
            from_lanes(sum.view(), out.view());
            EXPECT_LT(relative_difference<cf>(out.flat(), expected.flat()), 1e-6)
                << shape.nx << ' ' << shape.nh << ' ' << source;
        }
    }
}

TEST(OffsetBand, LeavesOtherImagesAlone) {
    Parms few = WaveCase{.nx = 30, .nh = 7}.parms(), uneven = WaveCase{.nx = 30, .nh = 9}.parms(), shifts = uneven,
          backward = uneven;
    uneven.img.sh.d *= 1.5f;
    shifts.timeshift = true;
    backward.img.sh.d *= -1.0f;
    for (const Parms& par : {few, uneven, shifts, backward}) EXPECT_FALSE(OffsetBand(ImageCondition(par), 30).serves());
}

TEST(Image, MultiplesCorrelateTheReceiverFieldWithItselfWithoutConjugate) {
    Parms par = WaveCase{.nx = 9, .nh = 3}.parms();
    par.imgcon = "imgmult";
    const ImageCondition condition(par);
    const Fields f(9);
    Array<float, 2> image({9, 3});
    ImageScratch scratch(9);
    owimage_forward(condition, 0, f.ws.view(), f.wr.view(), image, scratch);
    EXPECT_NEAR(image(4, 2), (f.wr(3) * f.wr(5)).real(), 1e-6);
    EXPECT_NEAR(image(4, 1), (f.wr(4) * f.wr(4)).real(), 1e-6);
    Array<cf, 1> out({9});  // the adjoint leaves image and fields alone
    owimage_adjoint(condition, 0, Spread::source, f.wr.view(), image.view(), out, scratch);
    for (const cf& z : out.flat()) EXPECT_EQ(z, cf{});
    par.imgcon = "other  ";
    Array<float, 2> none({9, 3});
    owimage_forward(ImageCondition(par), 0, f.ws.view(), f.wr.view(), none, scratch);
    for (const float v : none.flat()) EXPECT_EQ(v, 0.0f);
}

TEST(Scattering, FirstTermTurnsAndScalesTheBackground) {
    const Parms par = WaveCase{.nx = 10}.parms();
    const LateralFft fft(10, FFTW_ESTIMATE);
    const Array<float, 2> s = slowness(10, 1, 0.2f);
    Array<cf, 1> wv({10}), plus({10}), minus({10}), kept({10});
    Array<cf, 2> work({10, 3});
    randomize(wv.flat(), 21);
    kept(4) = cf(3.0f, 1.0f);
    owscctr(par, fft, scattering_series, 1, +1, plus, wv.view(), s.view().slice(0), work);
    owscctr(par, fft, scattering_series, 1, -1, minus, wv.view(), s.view().slice(0), work);
    owscctr(par, fft, scattering_series, 1, +1, kept, wv.view(), s.view().slice(0), work);
    const double a = static_cast<double>(par.img.z.d) * par.rec.w.all[1];
    for (std::ptrdiff_t i = 0; i < 10; ++i) {
        const cd expected = cd(0, a) * cd(wv(i));
        EXPECT_LT(std::abs(cd(plus(i)) - expected), 1e-6 * a);
        EXPECT_EQ(minus(i), -plus(i));
        const cd entry = i == 4 ? cd(0, a) * cd(3, 1) : cd(0);
        EXPECT_LT(std::abs(cd(kept(i)) - expected - entry), 1e-5 * a);
    }
}

TEST(Scattering, HigherTermsArePowersOfTheHorizontalWavenumber) {
    const int nx = 12;
    const Parms par = WaveCase{.nx = nx}.parms();
    const LateralFft fft(nx, FFTW_ESTIMATE);
    const std::array<float, 10> series{1.0f, 0.5f, 0.375f, 0, 0, 0, 0, 0, 0, 0};
    const double k = 2.0 * std::numbers::pi * 2 / (nx * par.rec.h.d), w = par.rec.w.all[0];
    const std::vector<float> s(nx, static_cast<float>(0.6 * w / k));  // so that the higher terms count
    Array<cf, 1> wave({nx}), out({nx});
    Array<cf, 2> work({nx, 3});
    for (int i = 0; i < nx; ++i) wave(i) = cf(std::polar(1.0, k * i * par.rec.h.d));
    owscctr(par, fft, series, 0, -1, out, wave.view(), View<const float, 1>{s.data(), {nx}}, work);
    const double q = 0.6 * 0.6;
    const cd factor = cd(0, -1) * (1 + 0.5 * q + 0.375 * q * q) * (static_cast<double>(par.img.z.d) * w);
    for (int i = 0; i < nx; ++i) EXPECT_LT(std::abs(cd(out(i)) - factor * cd(wave(i))), 1e-5 * std::abs(factor));
}
