#pragma once
/// Messages to a job master over TCP. Silent unless the four parameters "qas.jobid", "qas.mach_label", "qas.master_ip"
/// and "qas.master_port" are given; "qas.par_job=0" keeps it silent.
#include <string>
#include <string_view>

#include "lib/corelibs/qas/parameters/command_line.h"

namespace qas {

/// Sends one message "kind:jobid:label:text" and waits for the five bytes of its receipt, 30 s at most.
/// Returns 0 when it was sent or is not wanted; for the kind "error" 1 on any failure, so that the way out of a run
/// never fails in turn. Other kinds throw.
int qas_send_msg(CommandLine& line, std::string_view kind, std::string_view text);

/// The exchange on a connected socket: 1024 bytes out, message and marker padded with zeros, and 5 bytes back. Returns
/// 0, or as qas_send_msg on failure (`is_error`: 1). Errors: "trouble sending message %s \n", "trouble received message
/// %s", each after a line on the standard error.
int qas_exchange(CommandLine& line, int fd, const std::string& message, bool is_error);

void qas_begin_prog(CommandLine& line);                            ///< "record", if the parameter "qas.begin_par" is 1
void qas_end_prog(CommandLine& line);                              ///< "finish", if the parameter "qas.end_par" is 1
void qas_err_prog(CommandLine& line);                              ///< "error"
void qas_exit_prog(CommandLine& line);                             ///< "exit"
void qas_progress_prog(CommandLine& line, std::string_view text);  ///< "progress"
/// Prints "text finished=done of total" on the standard error; sends it as progress if `send` is 1.
void qas_prog_stat(CommandLine& line, std::string_view text, int done, int total, int send);

}  // namespace qas
