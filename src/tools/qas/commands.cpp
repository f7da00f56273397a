#include "src/tools/qas/commands.h"

#include <array>

namespace qastool {
namespace {

constexpr const char* outputs =
    "The new dataset's header goes to the standard output (or stdout=FILE), its data where datapath= says; into a\n"
    "pipe the data follow the header. Messages go to the standard error.\n";

constexpr std::array<Command, 8> all{{
    {"info", run_info, false, 23,
     "qas info [FILE...] [--panels]\n"
     "For each dataset: data file, format, axes, the size that the header promises against the size of the data, then\n"
     "minimum, maximum, mean, rms, number of zeros and of samples that are not finite. Of complex samples the modulus\n"
     "counts. With --panels (or panels=y) also a line per panel: per index of the last axis, or of the one before it if\n"
     "the last has one sample.\n"
     "Example:\n"
     "  qas info --panels velout.H\n"},
    {"cat", run_cat, true, 23,
     "qas cat FILE... [axis=K] [raw=native|xdr]\n"
     "Puts datasets together along axis K: by default the last one of the first file; one more stacks them. All other\n"
     "axes must agree. The history is that of the first file. With raw= nothing but the samples goes to the standard\n"
     "output, in the byte order of this machine (native) or big-endian (xdr).\n"
     "Examples:\n"
     "  qas cat shots1.H shots2.H > shots.H\n"
     "  qas cat raw=native vel.H | od -A d -t f4\n"},
    {"window", run_window, true, 23,
     "qas window [FILE] [f#=0] [j#=1] [n#=all]\n"
     "Along axis #, 1 to 9: n# samples, every j#-th, from index f# on; the first index is 0. Origin and interval follow.\n"
     "Examples:\n"
     "  qas window velout.H f4=9 n4=1 > last.H\n"
     "  qas window < image.H j1=2 f2=16 n2=1 | qas info\n"},
    {"head", run_head, true, 23,
     "qas head [FILE] key=value...\n"
     "Appends lines to the history of FILE, in place; a later line wins over an earlier one. Without FILE the dataset on\n"
     "the standard input goes to the standard output with the lines in its history.\n"
     "Examples:\n"
     "  qas head vel.H o1=1000 label1=\"distance in m\"\n"
     "  qas window < vel.H n3=50 | qas head title=shallow | qas npy > shallow.npy\n"},
    {"npy", run_npy, true, 23,
     "qas npy [FILE [OUT.npy]] [side=HEADER]\n"
     "Writes the samples as a NumPy array in C order: a[i3, i2, i1]; complex ones as c8. With OUT.npy the history and\n"
     "the axes go to the side header OUT.npy.H (side= names another); without it the array goes to the standard output,\n"
     "and a side header is written only if side= is given.\n"
     "Examples:\n"
     "  qas npy vel.H vel.npy\n"
     "  python3 -c 'import numpy; print(numpy.load(\"vel.npy\").shape)'\n"},
    {"from-npy", run_from_npy, true, 23,
     "qas from-npy [FILE.npy] [side=HEADER] [d#= o#= label#=]\n"
     "Makes a dataset of a NumPy array: the last index becomes axis 1 (in Fortran order: the first). Types f4, c8, i4\n"
     "and u1 in either byte order; f8 and c16 are narrowed to single precision. History, intervals and origins come from\n"
     "the side header FILE.npy.H if there is one, or from side=; else d#=1, o#=0.\n"
     "Example:\n"
     "  qas from-npy vel.npy o1=1000 d1=12.5 > vel2.H\n"},
    {"diff", run_diff, false, 2,
     "qas diff A B [tol=T] [max=M]\n"
     "Prints |A-B|/|A| over all samples and the largest difference with its indices. Status 0: the datasets agree; 1: they\n"
     "do not; 2: trouble. They agree if n#, d#, o# do (d#, o# to 1e-5) and the samples are equal; with tol= and max= the\n"
     "relative and the largest difference may be up to that. NaN agrees with NaN. Real and complex never agree.\n"
     "Example:\n"
     "  qas diff velout.H reference.H tol=1e-5 && echo same\n"},
    {"history", run_history, false, 23,
     "qas history [FILE]\n"
     "Prints the programs that wrote to the header, oldest first, with the parameters they recorded (\"par\") and the\n"
     "values they set. Of lines that set one name again and again the last is shown.\n"
     "Example:\n"
     "  qas history velout.H | less\n"},
}};

}  // namespace

std::span<const Command> commands() {
    return all;
}

std::string overview() {
    std::string text =
        "qas: looks into tagged datasets and converts them. Words are plain files and name=value parameters (par=FILE\n"
        "reads more); FILE is a header, \"-\" or none the dataset on the standard input.\n";
    for (const Command& command : all) {
        const std::string_view help(command.help);
        text += "  " + std::string(help.substr(0, help.find('\n') + 1));
    }
    return text + outputs + "\"qas SUBCOMMAND --help\" tells more, with examples.\n";
}

}  // namespace qastool
