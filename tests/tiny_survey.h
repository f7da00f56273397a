#pragma once
/// A survey small enough to be inverted in a blink: a laterally varying model of 40 columns and 8 levels, three
/// frequencies, and random wavefields.
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/dataset_files.h"

namespace files {

struct TinySurvey {
    TempDir dir;
    Dataset vel, rec, sou;
    std::map<std::string, std::string> arguments;

    static constexpr int nx = 40, nz = 8, traces = 12, frequencies = 3;

    /// Per-shot data: three shots of 12 traces, 40 apart, the source 20 right of the first trace. Areal: two fields of
    /// 12 traces.
    explicit TinySurvey(bool areal) {
        std::mt19937 random(7);
        std::normal_distribution<float> noise;
        const auto fill = [&](Dataset& set, int complex_samples) {
            set.samples.resize(2 * static_cast<std::size_t>(complex_samples));
            for (float& sample : set.samples) sample = noise(random);
        };
        vel.axis(1, nx, "10", "0");
        vel.axis(3, nz, "10", "0");
        for (int iz = 0; iz < nz; ++iz)
            for (int ix = 0; ix < nx; ++ix)
                vel.samples.push_back(1.0f / (1800.0f + 20.0f * static_cast<float>(iz) +
                                              100.0f * std::sin(0.2f * static_cast<float>(ix))));
        const int shots = areal ? 2 : 3;
        rec.axis(1, traces, "10", areal ? "100" : "-20");
        rec.axis(3, frequencies, "4", "8");
        rec.axis(4, shots, "40", "100");
        fill(rec, traces * frequencies * shots);
        if (areal) {
            sou = rec;
            fill(sou, traces * frequencies * shots);
        } else {
            sou.axis(1, 1, "10", "0");
            sou.axis(3, frequencies, "4", "8");
            sou.axis(4, 1, "1", "0");
            fill(sou, frequencies);
        }
        arguments = {{"inversion", "y"},
                     {"dso", "y"},
                     {"areal", areal ? "y" : "n"},
                     {"nh", "3"},
                     {"zmax", "70"},
                     {"traces_in_taper", "2"},
                     {"padtraces", "0"},
                     {"node", "1"},
                     {"niter", "1"},
                     {"bounds", "y"},  // unbounded, the second trial leaves the range of physical models
                     {"p_up", "20"},
                     {"p_lo", "20"},
                     {"fftplan", "estimate"},
                     {"vel", dir / "vel.H"},
                     {"rec", dir / "rec.H"},
                     {"sou", dir / "sou.H"},
                     {"Velout", dir / "velout.H"},
                     {"grad", dir / "grad.H"},
                     {"bkgimg", dir / "bkgimg.H"},
                     {"Dimage", dir / "dimage.H"},
                     {"log", dir / "log"},
                     {"list", dir / "listagem"},
                     {"stdin", dir / "empty"},
                     {"head", dir / "history"},
                     {"datapath", dir.text() + "/"}};
    }

    /// Writes the datasets; returns the command line that inverts them, with the program's name in front.
    std::vector<std::string> command() const {
        write_text(dir / "empty", "");
        vel.write(dir / "vel.H");
        rec.write(dir / "rec.H");
        sou.write(dir / "sou.H");
        std::vector<std::string> words = {"morvane"};
        for (const auto& [key, value] : arguments) words.push_back(key + "=" + value);
        return words;
    }
    Outcome run(const std::string& environment = "") const {
        std::vector<std::string> words = command();
        words.erase(words.begin());
        return run_program("morvane", words, dir.text(), environment);
    }
};

}  // namespace files
