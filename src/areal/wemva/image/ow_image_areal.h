#pragma once
/// Imaging condition: correlation of source and receiver fields over subsurface offset or time shift, and its adjoint.
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// The imaging condition of a run, chosen once.
struct ImageCondition {
    enum class Kind {
        offset,      ///< "imgprim": image(x,h) += Re(conj(ws(x-h)) wr(x+h))
        time_shift,  ///< "imgprim" with timeshift: image(x,t) += Re(wr conj(ws) exp(2i w t))
        multiples,   ///< "imgmult": image(x,h) += Re(wr(x-h) wr(x+h)), in both directions
        none,        ///< any other combination
    };
    Kind kind = Kind::none;
    bool rotated = false;    ///< forward offset image with phase sqrt(w) exp(-i pi/4): `migration`
    std::vector<int> ihso;   ///< half-offset of each sample of the second axis, in grid units (offset, multiples)
    std::vector<float> hto;  ///< time shift of each sample (time_shift)
    std::vector<float> w;    ///< angular frequencies
    explicit ImageCondition(const Parms& par);
    /// What the receiver field of frequency iw is turned by.
    cf receiver_phase(int iw) const;
};

/// Scratch of owimage: real and imaginary parts of both fields. One per thread.
struct ImageScratch {
    static constexpr std::ptrdiff_t block = 32;  ///< samples that the adjoint sums at a time
    Array<float, 2> part;                        ///< (nx, 4)
    Array<float, 2> padded;                      ///< (nx + 2 block, 2) one field between zeros
    Array<float, 2> sum;                         ///< (nx up to whole blocks, 2)
    explicit ImageScratch(int nx)
        : part({nx, 4}), padded({nx + 2 * block, 2}), sum({(nx + block - 1) / block * block, 2}) {}
};

/// Which field the adjoint adds into.
enum class Spread { source, receiver };

/// image += correlation of ws and wr at frequency iw. Samples x with x-h or x+h beyond the line are skipped.
/// @param ws, wr (nx) fields at this depth
/// @param image  (nx, second axis) one depth slice
void owimage_forward(const ImageCondition& condition, int iw, View<const cf, 1> ws, View<const cf, 1> wr,
                     View<float, 2> image, ImageScratch& scratch);

/// Adjoint: out += the image spread onto one field, given the other. Without phase, whatever `rotated` says. For time
/// shifts both sides carry exp(-2i w t), so that only the receiver side is the transpose of the forward image.
/// @param known (nx) the other field: the receiver field to spread onto the source side, and the other way round
/// @param next  the slice that is asked for next, to be brought into the cache meanwhile; may be empty
void owimage_adjoint(const ImageCondition& condition, int iw, Spread side, View<const cf, 1> known,
                     View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch,
                     View<const float, 2> next = {});

/// With J the derivative with respect to one field of the image of tapered fields: out = taper out + J' image, where J
/// takes fields from before the taper. For "imgprim" only.
/// @param taper (nx)
/// @param known (nx) the other field, before the taper
void owimage_transpose(const ImageCondition& condition, int iw, Spread side, View<const float, 1> taper,
                       View<const cf, 1> known, View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch,
                       View<const float, 2> next = {});

}  // namespace morvane
