#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/targets.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/tools/morvane_prepare/survey_grid.h"

using namespace morvane;

namespace fuzz {
namespace {

struct Descriptor {
    int number;
    ~Descriptor() { ::close(number); }
};

}  // namespace

/// All that morvane_prepare reads of a file: headers, samples, line, shots and nodes.
void segy(std::string_view input) {
    const Descriptor file{::memfd_create("segy", 0)};
    if (::write(file.number, input.data(), input.size()) < 0) std::abort();
    try {
        prepare::SegyOptions options;
        options.truncated = input.size() % 2 == 1;
        prepare::Survey survey({"/proc/self/fd/" + std::to_string(file.number)}, options);
        std::vector<float> samples(static_cast<std::size_t>(survey.samples()));
        const prepare::Scan scan = prepare::scan_headers(survey);
        for (int i = 0; i < survey.file(0).info().traces; ++i) survey.file(0).samples(i, samples);
        prepare::Line line = scan.axis.line();
        prepare::settle_origin(line, line.position(scan.shots[0]), 1e6);
        prepare::GridOptions grid;
        grid.most_distance = 1e6;
        grid.most_offset = 1e30;
        const prepare::SurveyGrid made = prepare::make_grid(survey, scan, line, grid);
        for (const int panel : made.panel)
            if (panel < 0 || panel >= static_cast<int>(made.node.size())) std::abort();
        if (made.traces < 1 || !(made.dx > 0)) std::abort();
        made.geometry(grid);
    } catch (const qas::Fatal&) {
    }
}

}  // namespace fuzz
