#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/objective.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/start/owparam.h"
#include "tests/quiet.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

Array<float, 3> gathers(std::initializer_list<float> samples, Extents<3> n) {
    Array<float, 3> image(n);
    std::ranges::copy(samples, image.flat().begin());
    return image;
}

}  // namespace

TEST(Objective, SquaresOrAbsoluteValuesWithoutAFactor) {
    Parms par;
    par.img.sh.n = 2;
    const Array<float, 3> residual = gathers({1, -2, 3, -4}, {2, 2, 1});
    EXPECT_EQ(classic_objective(par)->value(residual, 1), 30.0);
    par.l1norm = true;
    EXPECT_EQ(classic_objective(par)->value(residual, 1), 10.0);
    par.img.sh.n = 0;  // time shifts
    EXPECT_EQ(classic_objective(par)->value(residual, 1), 0.0);
}

TEST(Objective, TermsAreSinglePrecisionAndTheSumIsDouble) {
    Parms par;
    par.img.sh.n = 1;
    const float loud = 4097.0f;  // its square has 25 bits
    EXPECT_EQ(classic_objective(par)->value(gathers({loud, 1.0f / 1024, 1.0f / 1024}, {3, 1, 1}), 1),
              static_cast<double>(loud * loud) + 2.0 / 1048576.0);
    EXPECT_NE(static_cast<double>(loud * loud), static_cast<double>(loud) * loud);
    EXPECT_EQ(classic_objective(par)->value(gathers({1e30f}, {1, 1, 1}), 1), std::numeric_limits<double>::infinity());
}

// One areal shot, the arithmetic around the wavefield operators done by hand.
TEST(Evaluate, TheGradientIsMinusTheAdjointOfTheTwiceWeightedImage) {
    files::TinySurvey survey(true);
    survey.rec.header["n4"] = survey.sou.header["n4"] = "1";
    survey.arguments["nh"] = "5";
    survey.arguments["expdso"] = "1";
    const Quiet quiet;
    qas::Session session(survey.command());
    const Parms par = owparam(session);
    const LateralFft fft(par.kxm.n, FFTW_ESTIMATE);
    TextLog listing(session, "list", survey.dir / "listagem");
    Array<float, 1> taper({par.kxm.n});
    for (int i = 0; i < par.kxm.n; ++i) taper(i) = 1.0f - 0.001f * static_cast<float>(i);
    const Array<float, 2> vel0({par.img.xm.n, par.img.z.n});
    EvaluationArrays arrays(par);
    std::vector<double> x, g(vel0.flat().size(), 99.0);
    for (std::size_t i = 0; i < g.size(); ++i) x.push_back(5e-4 + 1e-6 * static_cast<double>(i % 7));
    const std::vector<double> given = x;
    const double fun = evaluate({par, session, listing, fft, taper, vel0, {}, {}, {}}, arrays, x, g, 1, 1);
    EXPECT_EQ(x, given) << "without a horizon the point stays";

    const auto complex_field = [&](const std::vector<float>& samples) {
        Array<cf, 2> field({par.rec.h.n, par.rec.w.n});
        for (std::size_t i = 0; i < field.flat().size(); ++i) field.flat()[i] = cf(samples[2 * i], samples[2 * i + 1]);
        return field;
    };
    const Array<cf, 2> recv = complex_field(survey.rec.samples), source = complex_field(survey.sou.samples);
    Array<float, 2> model({par.kxm.n, par.img.z.n}), illum({par.kxm.n, par.img.z.n}), deltas({par.kxm.n, par.img.z.n});
    for (std::size_t i = 0; i < x.size(); ++i) model.flat()[i] = static_cast<float>(x[i]);
    Array<float, 3> image({par.kxm.n, 5, par.img.z.n});
    const WaveContext context{par, fft, 1, taper, {}};
    owwei(context, recv, source, model, image, illum);
    double expected_fun = 0.0;
    for (int iz = 0; iz < par.img.z.n; ++iz) {
        for (int ih = 0; ih < 5; ++ih) {
            const float weight = static_cast<float>(std::abs(ih - 2)) / 2.0f;
            for (int ix = 0; ix < par.kxm.n; ++ix) {
                image(ix, ih, iz) *= weight * weight;
                expected_fun += static_cast<double>(image(ix, ih, iz)) * image(ix, ih, iz);
            }
        }
    }
    EXPECT_GT(fun, 0.0);
    EXPECT_NEAR(fun, expected_fun, 1e-5 * expected_fun);
    owwemva(context, true, recv, source, model, deltas, image, nullptr);
    double size = 0.0, difference = 0.0;
    for (std::size_t i = 0; i < g.size(); ++i) {
        size = std::max(size, std::abs(g[i]));
        difference = std::max(difference, std::abs(g[i] + deltas.flat()[i]));
    }
    EXPECT_GT(size, 0.0);
    EXPECT_LT(difference, 1e-5 * size);
}

// Two areal shots twice: each shot divides the stack so far by the illumination so far, also that of the evaluation
// before.
TEST(Evaluate, LightDividesTheStackByItsIlluminationAndWritesIt) {
    files::TinySurvey survey(true);
    survey.arguments["light"] = "y";
    survey.arguments["illum"] = survey.dir / "illum.H";
    const Quiet quiet;
    std::vector<float> images, illuminations;
    {
        qas::Session session(survey.command());
        const Parms par = owparam(session);
        const LateralFft fft(par.kxm.n, FFTW_ESTIMATE);
        TextLog listing(session, "list", survey.dir / "listagem");
        Array<float, 1> taper({par.kxm.n});
        taper.fill(1.0f);
        EvaluationArrays arrays(par);
        std::vector<double> x(arrays.model.flat().size(), 5e-4), g(x.size());
        Array<float, 3> stack({par.kxm.n, 3, par.nz}), one = stack;
        Array<float, 2> model({par.kxm.n, par.nz}), illumination = model;
        model.fill(5e-4f);
        for (int titer = 1; titer <= 2; ++titer) {
            evaluate({par, session, listing, fft, taper, {}, {}, {}, {}}, arrays, x, g, 1, titer);
            stack.fill(0.0f);
            for (std::size_t shot = 0; shot < 2; ++shot) {
                const auto field = [&](std::vector<float>& samples) {
                    cf* const first = reinterpret_cast<cf*>(samples.data());
                    return View<const cf, 2>{first + 36 * shot, {12, 3}};
                };
                one.fill(0.0f);
                owwei({par, fft, 1, taper, {}}, field(survey.rec.samples), field(survey.sou.samples), model, one,
                      illumination);
                for (std::size_t i = 0; i < stack.flat().size(); ++i) {
                    const std::size_t column = i % 16, level = i / 48;
                    const float light = illumination.flat()[16 * level + column];
                    stack.flat()[i] = (stack.flat()[i] + one.flat()[i]) * light / (light * light + 0.5f);
                }
            }
            images.insert(images.end(), stack.flat().begin(), stack.flat().end());
            illuminations.insert(illuminations.end(), illumination.flat().begin(), illumination.flat().end());
        }
    }
    const std::vector<float> image = files::read_dataset(survey.dir / "bkgimg.H");
    ASSERT_EQ(image.size(), images.size());
    for (std::size_t i = 0; i < image.size(); ++i) EXPECT_NEAR(image[i], images[i], 1e-5f * std::abs(images[i])) << i;
    const std::vector<float> light = files::read_dataset(survey.dir / "illum.H");
    ASSERT_EQ(light.size(), illuminations.size());
    for (std::size_t i = 0; i < light.size(); ++i) EXPECT_FLOAT_EQ(light[i], illuminations[i]) << i;
    EXPECT_EQ(files::header_value(files::read_text(survey.dir / "illum.H"), "n1"), "16");
}

TEST(Evaluate, TheSourceFunctionStandsAtItsTrace) {
    files::TinySurvey survey(false);
    survey.rec.header["n4"] = "1";
    const Quiet quiet;
    qas::Session session(survey.command());
    const Parms par = owparam(session);
    const LateralFft fft(par.kxm.n, FFTW_ESTIMATE);
    TextLog listing(session, "list", survey.dir / "listagem");
    Array<float, 1> taper({par.kxm.n});
    taper.fill(1.0f);
    EvaluationArrays arrays(par);
    arrays.model.fill(5e-4f);
    form_image({par, session, listing, fft, taper, {}, {}, {}, {}}, arrays, 1);
    for (int iw = 0; iw < par.rec.w.n; ++iw) {
        for (int ih = 0; ih < par.rec.h.n; ++ih) {
            const std::size_t i = 2 * static_cast<std::size_t>(iw);
            const cf expected = ih == 2 ? cf(survey.sou.samples[i], survey.sou.samples[i + 1]) : cf();
            EXPECT_EQ(arrays.shots.source(ih, iw), expected) << ih << " " << iw;
        }
    }
}
