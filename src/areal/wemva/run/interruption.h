#pragma once
/// Signals that ask a run to end: SIGINT, SIGTERM, SIGUSR1.

namespace morvane::interruption {

/// From now on the first of these signals is only noted; a second one ends the program at once.
void listen();
/// The signal that was noted; 0: none.
int signal();
/// Whether the work at hand is to be dropped, because a signal came more than patience_s ago.
bool is_overdue();
/// How long work may take to come to its end after a signal.
inline constexpr double patience_s = 10.0;
/// As if this signal had come; one that came before stays.
void note_signal(int number);
/// The work at hand is to be dropped at once.
void drop();
/// Forgets the signal and listens no longer.
void forget();

}  // namespace morvane::interruption
