#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

std::string header_place(const streaminf& stream) {
    std::string key = stream.tagname;
    if (key == "in") key = "stdin";
    if (key == "out") key = "stdout";
    return "header \"" + stream.headername + "\" of tag \"" + stream.tagname + "\" (parameter " + key + ")";
}

}  // namespace qas
