#pragma once
/// Messages to a job master over TCP. Silent unless the four parameters "qas.jobid", "qas.mach_label", "qas.master_ip"
/// and "qas.master_port" are given; "qas.par_job=0" keeps it silent.
#include <string>
#include <string_view>

#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// Sends one message "kind:jobid:label:text" and waits for the five bytes of its receipt, 30 s at most.
/// Returns 0 when it was sent or is not wanted; for the kind "error" 1 on any failure, so that the way out of a run
/// never fails in turn. Other kinds throw.
int qas_send_msg(Layer& layer, std::string_view kind, std::string_view text);

/// The exchange on a connected socket: 1024 bytes out, message and marker padded with zeros, and 5 bytes back. Returns
/// 0, or as qas_send_msg on failure (`is_error`: 1). Errors: "trouble sending message %s \n", "trouble received message
/// %s", each after a line on the standard error.
int qas_exchange(Layer& layer, int fd, const std::string& message, bool is_error);

void qas_begin_prog(Layer& layer);                            ///< "record", if the parameter "qas.begin_par" is 1
void qas_end_prog(Layer& layer);                              ///< "finish", if the parameter "qas.end_par" is 1
void qas_err_prog(Layer& layer);                              ///< "error"
void qas_exit_prog(Layer& layer);                             ///< "exit"
void qas_progress_prog(Layer& layer, std::string_view text);  ///< "progress"
/// Prints "text finished=done of total" on the standard error; sends it as progress if `send` is 1.
void qas_prog_stat(Layer& layer, std::string_view text, int done, int total, int send);

}  // namespace qas
