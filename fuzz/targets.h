#pragma once
/// Places where the programs read what anybody may have written: the dataset layer's texts, and SEG-Y. Each takes one
/// such input, may end in qas::Fatal like a run, and aborts when a promise does not hold.
#include <string_view>

namespace fuzz {

void scanner(std::string_view input);    ///< a parameter file or history; words of a command line
void header(std::string_view input);     ///< a header on standard input and what programs ask of it
void list(std::string_view input);       ///< a value: its type, its room, and its text
void datapath(std::string_view input);   ///< a ".datapath" file
void end_mark(std::string_view input);   ///< the end of a header whose data follow
void job_reply(std::string_view input);  ///< what a job master sends back
void segy(std::string_view input);       ///< a SEG-Y file and the geometry in its headers; only with libsegyio

struct Target {
    const char* name;
    void (*run)(std::string_view);
};
inline constexpr Target targets[] = {{"scanner", scanner},   {"header", header},     {"list", list},
                                     {"datapath", datapath}, {"end_mark", end_mark}, {"job_reply", job_reply},
#ifdef MORVANE_SEGY
                                     {"segy", segy}
#endif
};

}  // namespace fuzz
