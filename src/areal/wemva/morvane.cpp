/// morvane: two-dimensional wave-equation migration velocity analysis.
#include "src/areal/wemva/program/program.h"

int main(int argc, char** argv) {
    morvane::prepare_process();
    const auto team = morvane::serial_team();
    return morvane::run_program(argc, argv, "morvane", *team);
}
