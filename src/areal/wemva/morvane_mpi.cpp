/// morvane_mpi: morvane on several machines, its shots shared by the ranks that mpirun starts.
#include "src/areal/wemva/program/program.h"
#include "src/areal/wemva/team/mpi/mpi_team.h"

int main(int argc, char** argv) {
    morvane::prepare_process();
    morvane::MpiTeam team(argc, argv);
    const int status = morvane::run_program(argc, argv, "morvane_mpi", team);
    team.finish(status);
    return status;
}
