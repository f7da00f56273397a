#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/io.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

void multifd_open(Layer&, streaminf& stream) {
    qaserr("%s: in=\"%s\": data in several files are not available in this version\n", header_place(stream).c_str(),
           stream.dataname.c_str());
}

}  // namespace

const IoRoutines multifd_io{multifd_open, nullptr, nullptr, nullptr, nullptr, nullptr};

}  // namespace qas
