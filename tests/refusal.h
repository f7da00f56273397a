#pragma once
#include <string>

#include "lib/corelibs/qas/messages/qaserr.h"

/// The message a call ends the run with; "accepted" if it does not.
template <class Call>
std::string refusal(const Call& call) {
    try {
        call();
    } catch (const qas::Fatal& error) {
        return error.what();
    }
    return "accepted";
}
