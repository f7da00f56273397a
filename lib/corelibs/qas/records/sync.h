#pragma once
/// Header and data in one pipe or socket: the marks between them.
#include <cstddef>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// What stands at the end of a header that ended with the byte 4.
struct EndMark {
    enum Kind {
        none,         ///< nothing
        data_follow,  ///< two bytes 12: the data are next in the stream
        number,       ///< a blank and nine digits: the writer's process number alone
        handshake     ///< "PIPE host service number": the writer waits for an answer there
    } kind = none;
    std::size_t cut = 0;  ///< length of the header without the mark
    int process = 0;
    std::string host, service;
};

EndMark parse_end_mark(std::string_view header);

/// Cuts the end mark off an input header and answers it. The process and the address in a mark come from outside: they
/// are used only if that process holds the writing end of this very pipe or socket.
/// Errors: "syncin() sync err\n".
void syncin(Layer& layer, streaminf& stream);

/// Ends an output header whose data follow in the same stream. In a pipe or socket the reader is asked to answer first,
/// for `timeout` seconds (parameter, default 5; 0: for ever), unless the parameter "isoutstream" is set.
/// Errors: "syncout(): getting hostname\n", "syncout(): pipe synch failed!\n".
void syncout(Layer& layer, streaminf& stream);

}  // namespace qas
