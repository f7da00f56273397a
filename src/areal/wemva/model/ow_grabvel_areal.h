#pragma once
/// The model in its three layouts (input grid, image grid, window of a shot), and the edit above a horizon.
#include <span>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Copies the image out of the input model.
/// @param velint (v.xm.n, >= img.z.n)
/// @param vel    (img.xm.n, img.z.n) overwritten
/// @return the column of velint, counted from 1, at which the image starts
int cut_image(const Parms& par, View<const float, 2> velint, View<float, 2> vel);

/// First column, counted from 1, of the image that the window of shot `ixs` holds.
int window_column(const Parms& par, int ixs);

/// Copies a part of a model; columns are shifted, never interpolated, and depth rows are taken one to one from the top.
/// imagem true:  the image out of the input model. If the parameter "xxx" is given, 1/vel also goes to that dataset.
/// imagem false: the window of a shot out of the image; its first coordinate and column are listed on standard error.
///               If the parameter "zzz" is given, 1/vel also goes to that dataset, one panel per call.
/// @param velint (v.xm.n or img.xm.n, >= img.z.n) the model to cut from
/// @param vel    (img.xm.n or kxm.n, img.z.n) overwritten
/// @param ixs    shot number, counted from 1; not read when imagem is true
/// @return the column of velint, counted from 1, at which the cut starts (`ish`)
/// The cut must lie inside velint (owparam sees to that; asserted here).
int owgrab_vel(const Parms& par, qas::Session& session, View<const float, 2> velint, View<float, 2> vel, bool imagem,
               int ixs);

/// Gives every sample strictly above the horizon back to the start model; the picked depth counts in whole units.
/// @param pick1 (img.xm.n) picked depth of each image column
/// @param vel   (img.xm.n, img.z.n) edited in place
/// @param vel0  same shape, the start model; empty: samples above the horizon become 0, and columns outside
///              xv_min..xv_max take the values of the column one inside the limit (kept within the image)
void oweditvel(const Parms& par, std::span<const float> pick1, View<double, 2> vel, View<const float, 2> vel0);

/// As oweditvel in single precision; without vel0 only the samples above the horizon become 0.
void oweditvel_sngl(const Parms& par, std::span<const float> pick1, View<float, 2> vel, View<const float, 2> vel0);

}  // namespace morvane
