#pragma once
/// Migration where every frequency starts from clear margins, so that frequencies may be carried down in blocks.
#include "src/areal/wemva/passes/ow_wei_areal.h"

namespace morvane {

/// As owwei.
void migrate_blocks(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 3> image, View<float, 2> illum);

}  // namespace morvane
