#include "lib/corelibs/qas/tags/unpipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/tags/header_input.h"

namespace qas {

int make_unpipe(Layer& layer, std::string_view tag) {
    streaminf& stream = input_tag(layer, tag);
    const char* name = stream.tagname.c_str();
    if (stream.entrytype != STREAMIN || !stream.valid)
        qaserr("make_unpipe(): invalid input tag %s\n%s", name, stream.trouble.c_str());
    if (!stream.ioinf) stream.io->open(layer, stream);
    if (!stream.valid) qaserr("make_unpipe: unable to open tag \"%s\" \n%s", name, stream.trouble.c_str());
    FileState* state = std::get_if<FileState>(&*stream.ioinf);
    if (!state || !state->in || stream.backseekable) return 0;

    const DataPath path = datapath(layer);
    const std::string pattern = path.prefix.substr(0, path.prefix.find(';')) + "Unpipe_XXXXXX";
    std::string scratch = pattern;
    FdState copy;
    copy.fd.reset(::mkostemp(scratch.data(), O_CLOEXEC));
    if (copy.fd.get() < 0 && errno == ENOENT && path.by_default && make_default_folder(pattern)) {
        scratch = pattern;
        copy.fd.reset(::mkostemp(scratch.data(), O_CLOEXEC));
    }
    if (copy.fd.get() < 0)
        qaserr("Unable to create scratch file to buffer a pipe\n  \"%s\" for tag \"%s\": %s\n", scratch.c_str(), name,
               std::strerror(errno));
    ::unlink(scratch.c_str());
    std::array<char, 65536> block;
    for (;;) {
        const std::int64_t got = state->in->read(block.data(), static_cast<std::int64_t>(block.size()));
        if (got < 0) qaserr("make unpipe read failed for tag \"%s\" \n  %s\n", name, std::strerror(errno));
        if (got == 0) break;
        std::int64_t done = 0;
        if (write_fully(copy.fd.get(), block.data(), got, done) != got)
            qaserr("make_unpipe: write failed for tag \"%s\" \n  %s\n", name, std::strerror(errno));
    }
    ::lseek(copy.fd.get(), 0, SEEK_SET);
    stream.io->close(layer, stream);
    stream.io = &fd_io;
    stream.iotype = FD_IO;
    stream.ioinf = std::move(copy);
    stream.backseekable = true;
    stream.isapipe = false;
    return 0;
}

}  // namespace qas
