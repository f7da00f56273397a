"""The faults of scripts/mutate, by content: a text that stands once in lib/ and src/ and what replaces it; the hint names the
tests that should see it, which are run first.

m(floor, name, hint, (old, new), ...): alternatives; one of several edits at once is ((old, new), (old, new), ...).
"""
MUTATIONS = []


def m(floor, name, hint, *finds):
    MUTATIONS.append({"floor": floor, "name": name, "hint": hint.split(), "find": list(finds)})


# --- lib/base --------------------------------------------------------------------------------------------------------
m("base", "fixed_format: a number as wide as its field becomes asterisks", "FixedFormat* Fixed* Column* List*",
  ("if (text.size() > columns) return std::string(columns, '*');",
   "if (text.size() >= columns) return std::string(columns, '*');"))
m("base", "fixed_format: three-digit exponents keep their letter", "FixedFormat* Fixed* Column* List*",
  ("if (text.size() - e > 4) return text.erase(e, 1);", "if (text.size() - e > 5) return text.erase(e, 1);"))
m("base", "fixed_format: no blank between a number and a text", "FixedFormat* Fixed* Column* List*",
  ("if (line.empty() || after_number) line += ' ';", "if (line.empty()) line += ' ';"))
m("base", "arena: arrays overlap by a cache line", "Arena* Wei* Exact* SinglePass*",
  ("used_ += bytes;\n        return start;", "used_ += bytes > line ? bytes - line : bytes;\n        return start;"))
# --- dataset layer ---------------------------------------------------------------------------------------------------
m("qas", "scanner: a doubled quote ends the text", "Scan* Parameters* Fuzz*",
  ("if (i == text.size() || text[i] != quote) break;", "break;"))
m("qas", "scanner: # begins a comment after a blank, too", "Scan* Parameters* Fuzz*",
  ("if (in.line_start && c == '#') {", "if ((in.line_start || in.after_blank) && c == '#') {"))
m("qas", "scanner: a comment swallows the line behind it", "Scan* Parameters* Fuzz*",
  ("in.at = std::min(text.find('\\n', in.at), text.size());",
   "in.at = std::min(text.find('\\n', std::min(text.find('\\n', in.at), text.size() - 1) + 1), text.size());"))
m("qas", "parameters: of two synonyms the older counts", "Parameters*",
  ("(!newest || at->second.timestamp > newest->timestamp)", "(!newest || at->second.timestamp < newest->timestamp)"))
m("qas", "decode: integers out of range wrap", "Parameters* Decode*",
  ("return static_cast<int>(number < lowest ? lowest : number > highest ? highest : number);",
   "return static_cast<int>(number);"))
m("qas", "decode: a repeat count repeats once less", "Parameters* Decode*",
  ("values.insert(values.end(), static_cast<std::size_t>(count), value);",
   "values.insert(values.end(), static_cast<std::size_t>(count > 1 ? count - 1 : count), value);"))
m("qas", "parameters: doubles are recorded with 6 digits", "Parameters* Datasets*",
  ('return strprintf("%.15g", v);', 'return strprintf("%g", v);'))
m("qas", "fetch: the history goes before the command line", "Parameters*",
  ("Values values = getch(layer, names, type, most);\n    return found(values) ? values : hetch(layer, names, type, most);",
   "Values values = hetch(layer, names, type, most);\n    return found(values) ? values : getch(layer, names, type, most);"))
m("qas", "transfer: the last block of a long read is not swapped", "Datasets* Transfer*",
  ("swap_words(block, to, static_cast<std::size_t>(got / 4));",
   "if (total + got < nbytes || total == 0) swap_words(block, to, static_cast<std::size_t>(got / 4)); else std::memcpy(to, block, static_cast<std::size_t>(got));"))
m("qas", "transfer: no warning of short data", "Datasets* Faults*",
  ("if (got < nbytes) warn_short(layer, stream, nbytes, got);", "if (got < 0) warn_short(layer, stream, nbytes, got);"))
m("qas", "multi-file: a read stops at the end of the first file", "Datasets* MultiFile* Multi*",
  ("if (total == nbytes || state.current + 1 == state.parts.size()) return total;",
   "if (total == nbytes || got == 0 || state.current + 1 == state.parts.size()) return total;"))
m("qas", "multi-file: a full disk is an error, not the next file", "Faults*",
  ("if (reason != EDQUOT && reason != ENOSPC) {", "if (reason != EDQUOT) {"))
m("qas", "write: a short write is not continued", "Faults* Pipes*",
  ("if (put == 0) break;\n        done += put;", "done += put;\n        break;"))
m("qas", "read: a short read of a pipe is taken for the end", "Pipes* Faults* Datasets*",
  ("std::min(nbytes - total, max_call)));\n        if (got < 0 && errno == EINTR) continue;\n        if (got < 0) return -1;",
   "std::min(nbytes - total, max_call)));\n        if (got < 0 && errno == EINTR) continue;\n        if (got > 0) return total + got;\n        if (got < 0) return -1;"))
m("qas", "file names: the first file counts as file 1", "Datasets* Updates* Names*",
  ("if (file > 0) one += std::to_string(file);", "one += std::to_string(file);"))
m("qas", "seek: absolute positions forget where the data begin", "Pipes* Datasets*",
  ("std::int64_t at = whence == 0 ? offset + state.start : offset;", "std::int64_t at = offset;"))
m("qas", "datapath: the environment goes before the parameter", "Datasets* DataPath* Updates*",
  ('if (const auto given = getch_text(layer, "datapath")) {', 'if (const auto given = getch_text(layer, "datapath"); given && !std::getenv("DATAPATH")) {'))
m("qas", "outputs: an input that came later is overwritten", "Driver.Nothing*",
  ("if (held(stream)) check_files_are_free(layer, *stream);", ""))
m("qas", "outputs: a semicolon parts a header's name", "Datasets*",
  ("if (name.find(';') != std::string::npos)", "if (name.find('\\1') != std::string::npos)"))
m("qas", "locks: taken for granted", "Driver* QasTool* Updates*",
  ("if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) break;", "break;"))
m("qas", "replacement: the finished file does not get its name", "QasTool*",
  ("if (::rename(beside_.c_str(), name_.c_str()) < 0) return false;", ""))
m("qas", "header lines: half a line stays", "Faults*",
  ("take_back(stream.headfile, begin);", ""))
m("qas", "history: a line on an in/out dataset is not seen", "Updates*",
  ("if (append_history(layer, stream, line)) read_back(layer, stream, line);", "append_history(layer, stream, line);"))

# --- operators -------------------------------------------------------------------------------------------------------
m("class", "wilson: stops at 1e-2", "Wilson* Filters* Lapfac*",
  ("if (eps < std::numeric_limits<float>::epsilon()) break;", "if (eps < 1e-2f) break;"))
m("class", "wilson: the two sides are not halved", "Wilson* Filters* Lapfac*",
  ("b[i] = 0.5f * (cc[middle - i] + cc[middle + i]) / cc[middle];", "b[i] = (cc[middle - i] + cc[middle + i]) / cc[middle];"))
m("class", "helicon: edges are not skipped", "Helicon* Operators* Wilson*",
  ("if (!aa.edges.empty() && aa.edges[iy]) continue;", "if (!aa.edges.empty() && aa.edges[iy - lag]) continue;"))
m("class", "polydiv: the adjoint runs in rising order", "Polydiv*",
  ("for (std::ptrdiff_t iy = std::min((set + 1) * shared, n); iy-- > set * shared;)",
   "for (std::ptrdiff_t iy = set * shared; iy < std::min((set + 1) * shared, n); ++iy)"))
m("class", "polydiv: the first sample of a lag is left out", "Polydiv* Geodip*",
  ("if (iy >= lag[ia]) sum -= c[ia] * y[iy - lag[ia]];", "if (iy > lag[ia]) sum -= c[ia] * y[iy - lag[ia]];"))
m("class", "steering filter: the mirrored weights of negative dips", "Filters* *Steering*",
  ("if (p < 0.0f) std::ranges::reverse(coef);", "if (p <= -1.0f) std::ranges::reverse(coef);"))
m("class", "steering filter: no clipping of negative weights", "Filters* *Steering*",
  ("c = std::max(c, 0.0f);\n        sum += c;", "sum += c;"))
m("class", "steering filter: lags counted from the wrong column", "Filters* *Steering*",
  ("build_steering(choice, 1, datadims[0], angle[at], lags, coef);",
   "build_steering(choice, 1, datadims[0] - 1, angle[at], lags, coef);"))
m("class", "laplacian: lags of the next column end one early", "Filters* Wilson* *Lapfac*",
  ("lags.push_back(n1 - na + i);", "lags.push_back(n1 - na + i - 1);"))
m("class", "cgstep: no floor under the determinant", "Cgstep* SolverReg* CgStep*",
  ("std::max(1.0 - (gds / gdg) * (gds / sds), 1e-12)", "(1.0 - (gds / gdg) * (gds / sds))"))
m("class", "solver_reg: the weight of the model residual once only", "SolverReg*",
  ("scale_into(eps_r, eps1, rm);\n        aop(adjoint, keep, g, eps_r);", "scale_into(eps_r, 1.0f, rm);\n        aop(adjoint, keep, g, eps_r);"))
m("class", "dip filter: the mask does not count the frame's rows", "Geodip* Conditioning*",
  ("const bool above = static_cast<float>(row + 1) < std::trunc(pick[static_cast<std::size_t>(ix)]);",
   "const bool above = static_cast<float>(row) < std::trunc(pick[static_cast<std::size_t>(ix)]);"))
m("class", "dip filter: rms over the padded panel", "Geodip* Conditioning*",
  ("const double s = slow(frame + iz, ix);", "const double s = slow(iz, ix);"))
m("class", "dip filter: dips are not rewound", "Geodip* Conditioning*",
  ("session.sseek(dipfile, 0, 0);", ""))
m("class", "dip filter: dips are not looked at before the run", "Geodip* OwsteerParms* Owparam*",
  ("polydiv_init(make_filter(session, z, xm, frame, parms.filters));", ""))
m("class", "dip filter: reals may be infinite", "OwsteerParms*",
  ('if (!std::isfinite(value)) qas::qaserr("%s=%g: a finite number is needed\\n", key, value);',
   'if (std::isnan(value)) qas::qaserr("%s=%g: a finite number is needed\\n", key, value);'))

# --- solver ----------------------------------------------------------------------------------------------------------
m("solver", "projected gradient: upper bounds ignored", "Projgr* Protocol* Problems* *",
  ("if (bounds.has_upper(i)) gi = std::max(x[i] - bounds.u[i], gi);", "if (bounds.has_lower(i)) gi = std::max(x[i] - bounds.u[i], gi);"))
m("solver", "cauchy: curvature of the next segment", "Cauchy*",
  ("f2 = f2 + 2 * dibp * wmp - dibp2 * wmw;", "f2 = f2 + 2 * dibp * wmp + dibp2 * wmw;"))
m("solver", "cauchy: breakpoints of variables on their way down", "Cauchy*",
  ("const double time = neggi < 0 ? tl / -neggi : tu / neggi;", "const double time = neggi < 0 ? tu / -neggi : tu / neggi;"))
m("solver", "heap: the larger child rises", "*eap* Cauchy*",
  ("if (j + 1 <= n - 1 && t[j + 1] < t[j]) ++j;", "if (j + 1 <= n - 1 && t[j + 1] > t[j]) ++j;"))
m("solver", "matrices: theta upside down", "Matrices* Matupd* Problems*",
  ("pairs.theta = rr / dr;", "pairs.theta = dr / rr;"))
m("solver", "matrices: the oldest pair is not shifted out of S'S", "Matrices* Matupd*",
  ("std::copy_n(&pairs.ss(1, j + 1), j + 1, &pairs.ss(0, j));", ""))
m("solver", "wn1: variables that left are not taken from the sums", "Matrices* Formk* UpdateWn1*",
  ("wn1(m + i, j) += i <= j ? entered - left : left - entered;", "wn1(m + i, j) += i <= j ? entered : -entered;"))
m("solver", "line search: curvature tolerance 0.5", "LineSearch* Dcsrch* Lnsrlb* Protocol*",
  ("constexpr double gtol = 0.9;", "constexpr double gtol = 0.5;"))
m("solver", "line search: the cubic takes the farther of the two in case 1", "LineSearch* Dcstep*",
  ("return std::abs(stpc - stx) < std::abs(stpq - stx) ? stpc : stpc + (stpq - stpc) / 2;",
   "return std::abs(stpc - stx) > std::abs(stpq - stx) ? stpc : stpc + (stpq - stpc) / 2;"))
m("solver", "subspace: the blocking variable is not put on its bound", "Subsm* Subspace* Matrices*",
  ("if (d[ibd] != 0) x[k] = d[ibd] > 0 ? bounds.u[k] : bounds.l[k];", ""))
m("solver", "main loop: pairs of no curvature are kept", "Protocol* Problems*",
  ("if (dr <= run.epsmch * ddum) {", "if (dr <= -1e300) {"), ("if (!(dr > run.epsmch * ddum)) {", "if (!(dr > -1e300)) {"))
m("solver", "main loop: the reduction test without its scale", "Protocol*",
  ("if (run.search.fold - run.f <= run.tol * ddum) {", "if (run.search.fold - run.f <= run.tol) {"))
m("solver", "main loop: a restart keeps the trial point", "Protocol* Problems*",
  ("std::copy(run.t.begin(), run.t.end(), run.x.begin());", ""))
m("solver", "factor: a pivot of zero passes", "Dense* Restart* Pairs*",
  ("if (!(s > 0)) return j + 1;", "if (!(s >= 0)) return j + 1;"))
m("solver", "triangles: lower ones solved as their transpose", "Dense*",
  ("} else if (!transposed) {\n        for (int j = 0; j < n; ++j) {\n            b[j] /=", "} else if (transposed) {\n        for (int j = 0; j < n; ++j) {\n            b[j] /="))
m("solver", "matrices: the oldest pair stays the head", "Pairs* Cauchy* Subsm*",
  ("pairs.head = pairs.head % m + 1;", ""))
m("solver", "matrices: the squared step of the scaled direction", "Pairs* Protocol*",
  ("pairs.ss(last, last) = stp == 1 ? dtd : stp * stp * dtd;", "pairs.ss(last, last) = dtd;"))
m("solver", "matrices: the middle matrix with its first half's sign turned", "Cauchy* Subsm*",
  ("p[i] = -p[i] / std::sqrt(sy(i, i));", "p[i] = p[i] / std::sqrt(sy(i, i));"))
m("solver", "matrices: the factor without its diagonal", "Cauchy* Subsm*",
  ("sum += sy(i, k) * sy(j, k) / sy(k, k);", "sum += sy(i, k) * sy(j, k);"))
m("solver", "subspace matrix: active block not scaled", "Formk* Subsm*",
  ("wn(col + j, col + i) = wn1(m + i, m + j) * pairs.theta;", "wn(col + j, col + i) = wn1(m + i, m + j);"))
m("solver", "free variables: those that enter are not listed", "Formk* Subsm* Reports*",
  ("indx2[nenter] = k;\n                ++nenter;", "indx2[nenter] = k;"))
m("solver", "free variables: no new pair, nothing to factor", "Formk* Problems*",
  ("const bool wrk = ileave < n + 1 || nenter > 0 || updatd;", "const bool wrk = ileave < n + 1 || nenter > 0;"))
m("solver", "heap: built upside down", "Cauchy*",
  ("while (i > 1 && time < t[i / 2]) {", "while (i > 1 && time > t[i / 2]) {"))
m("solver", "line search: a longer first interval", "Dcsrch* Protocol*",
  ("f, f, f, 0, 0, 0, stp + 4 * stp, whole, 2 * whole}", "f, f, f, 0, 0, 0, stp + 5 * stp, whole, 2 * whole}"))
m("solver", "line search: the first fault counts", "Dcsrch*",
  ("if (stpmax < stpmin) return \"ERROR: STPMAX .LT. STPMIN\";\n    if (stpmin < 0) return \"ERROR: STPMIN .LT. ZERO\";",
   "if (stpmin < 0) return \"ERROR: STPMIN .LT. ZERO\";\n    if (stpmax < stpmin) return \"ERROR: STPMAX .LT. STPMIN\";"))
m("solver", "reports: a line feed less before the table", "Reports*",
  ("\"\\n   it   nf  nint  nact  sub  itls  stepl    tstep     projg        f\\n\"", "\"   it   nf  nint  nact  sub  itls  stepl    tstep     projg        f\\n\""))

# --- step and extrapolators ------------------------------------------------------------------------------------------
m("step", "phase shift: evanescent waves are not cut", "DepthStep* Pspi* Owpspi*",
  ("scale[i] = kz2 >= 0.0f ? 1.0f : 0.0f;", "scale[i] = 1.0f;"))
m("step", "thin lens: sign of the slowness difference", "DepthStep* Pspi*",
  ("level.sdiff(i, k) = vel[static_cast<std::size_t>(i)] - sref;", "level.sdiff(i, k) = sref - vel[static_cast<std::size_t>(i)];"))
m("step", "finite-difference level: depth step not halved", "DepthStep* Ffd*",
  ("half_dz_(par.img.z.d * 0.5f)", "half_dz_(par.img.z.d)"))
m("step", "finite-difference level: the reference is the first sample", "DepthStep* Ffd*",
  ("if (!vref) c = std::min(c, 1.0f / s);", "if (!vref && s < 0.0f) c = std::min(c, 1.0f / s);"))
m("step", "finite-difference stage: the even half starts late", "DepthStep* Ffd*",
  ("const std::ptrdiff_t last = nx % 2 ? nx - 1 : nx;  // right-hand partner of sample 0", "const std::ptrdiff_t last = nx - 1;"))
m("step", "finite-difference solve: pivots unguarded", "DepthStep* Ffd*",
  ("return eliminate(std::true_type());", "return;"))
m("step", "coefficients of 80 degrees: second pole", "Ffd* DepthStep* *oeff*",
  ("{{0.457289577f, 0.040315159f}, {0.222691983f, 0.873981655f}, 2}", "{{0.457289577f, 0.040315159f}, {0.222691983f, 0.863981655f}, 2}"))
m("step", "blend: share relative to the reference", "Pspi* DepthStep*",
  ("const float distance = (v - c) / v, whole = std::trunc(distance);", "const float distance = (v - c) / c, whole = std::trunc(distance);"))
m("step", "blend: the share keeps its whole part", "Pspi* DepthStep*",
  ("return {below, distance - whole, whole == 0.0f ? -c : 0.0f};", "return {below, distance, whole == 0.0f ? -c : 0.0f};"))
m("step", "references: no last one for the fast body", "Owvref* Velo* DepthStep*",
  ("refs.vref.back() = *highest;", ""))
m("step", "step derivative: thin lens of the receiver side", "DepthStep* StepDerivative* Exact*",
  ("const cf thin_lens(0.0f, static_cast<float>(side.sign) * step.dz_w);", "const cf thin_lens(0.0f, step.dz_w);"))
m("step", "step transpose: derivative of the beta term", "DepthStep* Exact*",
  ("float db(std::ptrdiff_t i) const { return -of_b * (2.0f * v[i] + r) * v[i] * v[i]; }",
   "float db(std::ptrdiff_t i) const { return -of_b * (2.0f * v[i] - r) * v[i] * v[i]; }"))
m("step", "step transpose: second difference at the right end", "DepthStep* Exact*",
  ("for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(n - 2, 2); i < n; ++i) out[i] += w[i - 2] - 2.0f * w[i];",
   "for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(n - 2, 2); i < n; ++i) out[i] += - 2.0f * w[i];"))
m("step", "scattering: velocity over frequency not squared", "Wei* Scatter* Owscctr*",
  ("power(vel.p[i] / w, j) * scale", "power(vel.p[i] / w, j / 2) * scale"))
m("step", "taper: right end shifted by one", "Taper* Owtaper* Wei*",
  ("taper[static_cast<std::size_t>(n - i)] = weight;", "taper[static_cast<std::size_t>(std::min(n - i + 1, n - 1))] = weight;"))

# --- image -----------------------------------------------------------------------------------------------------------
m("image", "imaging: source and receiver sides exchanged", "Image* Owimage*",
  ("out[x] += sr[x - h] * rr[x + h] + si[x - h] * ri[x + h];", "out[x] += sr[x + h] * rr[x - h] + si[x + h] * ri[x - h];"))
m("image", "imaging: range one short at its end", "Image* Owimage*",
  ("Range(std::ptrdiff_t n, std::ptrdiff_t h) : first(std::abs(h)), end(n - std::abs(h)) {}",
   "Range(std::ptrdiff_t n, std::ptrdiff_t h) : first(std::abs(h)), end(n - std::abs(h) - (h != 0)) {}"))
m("image", "imaging: time shift without its factor 2", "Image* Owimage*",
  ("const float a = 2.0f * condition.hto[it] * w;", "const float a = condition.hto[it] * w;"))
m("image", "imaging transpose: the last sample of the image is left out", "Image* Owimage*",
  ("inside[j] = first + j < 0 || first + j >= size ? 0.0f : in[j];", "inside[j] = first + j < 0 || first + j >= size - 1 ? 0.0f : in[j];"))
m("image", "offset weight: maximum of the absolute values", "Weights* Owdso*",
  ("for (float& weight : h) weight = std::pow(std::abs(weight / m), par.expdso);",
   "for (float& weight : h) weight = std::pow(std::abs(weight / std::max(m, -h.front())), par.expdso);"))
m("image", "mute: a sample on the horizon stays", "Weights* Owdso* Conditioning*",
  ("line[ix] = pick[static_cast<std::size_t>(ix)] >= depth ? 0.0f : line[ix];",
   "line[ix] = pick[static_cast<std::size_t>(ix)] > depth ? 0.0f : line[ix];"))
m("image", "envelope: window of the offset axis one wider", "Smoothing* Owsmooth* Conditioning*",
  ("half_width(par.windh)", "half_width(par.windh) + 1"))
m("image", "envelope: clipped windows divide by the whole length", "Smoothing* Owsmooth* Conditioning*",
  ("Window(ix, half, n).count();", "static_cast<float>(2 * half + 1);"))
m("image", "envelope's transpose: divides behind the sums along a line", "Smoothing* Owsmooth* Exact*",
  ("if (direction == Direction::transposed) divide(line);", ""))
m("image", "f-x prediction: conjugate of the wrong factor", "Fx2d*",
  ("if (j < k) a(j, k).im = -a(j, k).im;", "if (j > k) a(j, k).im = -a(j, k).im;"))
m("image", "f-x prediction: lambda not squared", "Fx2d*",
  ("a(i, i).re *= 1.0f + lambda_ * lambda_;", "a(i, i).re *= 1.0f + lambda_;"))
m("image", "f-x prediction: patches one sample late", "Fx2d* Conditioning*",
  ("return static_cast<int>(1.5f + static_cast<float>(n - w) * static_cast<float>(j) / static_cast<float>(k - 1)) - 1;",
   "return std::min(static_cast<int>(1.5f + static_cast<float>(n - w) * static_cast<float>(j) / static_cast<float>(k - 1)), n - w);"))
m("image", "f-x prediction: both ends get half a prediction", "Fx2d*",
  ("const float share = i == 0 || i == n - 1 ? 1.0f : 0.5f;", "const float share = i == 0 ? 1.0f : 0.5f;"))
m("image", "f-x prediction: sets of filters are not counted", "Fx2d* Conditioning*",
  ('{"n5", output.set}', '{"n5", 1}'))
m("image", "slant stack: half the window", "Tim2ang* Owslant*",
  ("std::min<Index>(ix + half, par.img.xm.n - 1)", "std::min<Index>(ix, par.img.xm.n - 1)"))

# --- passes ----------------------------------------------------------------------------------------------------------
m("passes", "migration: image of the first level is one level low", "Wei* Evaluate* Exact*",
  ("owimage_forward(condition, iw, ws, wr, slot.image.slice(iz - (par.nzmin - 1)), slot.imaging);",
   "owimage_forward(condition, iw, ws, wr, slot.image.slice(iz - 1), slot.imaging);"))
m("passes", "migration: the receiver field is not tapered", "Wei* Driver*",
  ("apply_taper(context.taper, wr);\n        if (slot.illum.size() > 0) add_illumination", "if (slot.illum.size() > 0) add_illumination"),
  ("apply_taper(context.taper, wr);\n        add_illumination", "add_illumination"))
m("passes", "migration: data at the left margin", "Wei* Evaluate* Driver*",
  ("column.p + par.tapertr + par.padtraces", "column.p + par.tapertr"))
m("passes", "linearised adjoint: sign of the receiver's scattering", "Wei* Linearised*",
  ("scattered(-1, bwr, iz, slot.ddwr);\n            correlate", "scattered(+1, bwr, iz, slot.ddwr);\n            correlate"))
m("passes", "linearised forward: background image of the wrong side", "Wei* Linearised*",
  ("owimage_forward(condition, iw, bws, slot.dwr, image, slot.imaging);", "owimage_forward(condition, iw, slot.dwr, bws, image, slot.imaging);"))
m("passes", "exact: the gradient goes to the level below", "Exact*",
  ("slot.receiver(slot.ar, iz), slot.gradient.slice(iz - 1), slot.steps);", "slot.receiver(slot.ar, iz), slot.gradient.slice(iz), slot.steps);"))
m("passes", "exact: margins are not cleared", "Exact* Wei*",
  ("load_surface(par, recv, iw, true, slot.tr);", "load_surface(par, recv, iw, false, slot.tr);"))
m("passes", "single pass: one weight only", "SinglePass*",
  ("owdso(par, true, gg, {});\n                     slot.fun", "slot.fun"))

# --- model -----------------------------------------------------------------------------------------------------------
m("model", "window: rounded down", "Grabvel* Owgrab* Driver*",
  ("const int ni = truncate((xv - par.img.xm.o) / par.img.xm.d + 1.5f);\n    ", "const int ni = truncate((xv - par.img.xm.o) / par.img.xm.d + 1.0f);\n    "))
m("model", "horizon edit: a pick on a level keeps it", "Grabvel* Oweditvel*",
  ("return std::trunc(pick) > zz;", "return std::trunc(pick) >= zz;"))
m("model", "horizon edit: picks are not cut to whole units", "Grabvel* Oweditvel* Conditioning*",
  ("return std::trunc(pick) > zz;", "return pick > zz;"))
m("model", "spline: knots at the left end of their support", "Spline*",
  ("std::clamp(std::floor(nearest) - reach, 0.0, double(knots.n))", "std::clamp(std::floor(nearest), 0.0, double(knots.n))"))
m("model", "spline: axes exchanged in the forward operator", "Spline* Conditioning*",
  ("sum += x.weight * modl[static_cast<std::size_t>(y.at * nxk + x.at)] * y.weight;",
   "sum += x.weight * modl[static_cast<std::size_t>(x.at * nyk + y.at)] * y.weight;"))
m("model", "clustering: a sample on a bound belongs below", "Lloyd*",
  ("level.array[i] >= level.bound[static_cast<std::size_t>(region)]) ++region;", "level.array[i] > level.bound[static_cast<std::size_t>(region)]) ++region;"))
m("model", "clustering: regions change in all passes", "Lloyd*",
  ("if (static_cast<float>(i) < static_cast<float>(niter) * 0.5f) change_regions(level);", "change_regions(level);"))
m("model", "variables: bounds of a knot by its first column alone", "Variables* Exact*",
  ("up = std::min(up, samples.u[i] - start_[i]);", "up = ix == left ? std::min(up, samples.u[i] - start_[i]) : up;"))
m("model", "horizon file: the exponent letter d", "Horizon* Driver*",
  ("return c == 'd' || c == 'D' ? 'e' : c;", "return c == 'D' ? 'e' : c;"))
m("model", "integer part: rounds down", "Truncate* Owparam*",
  ("return value < static_cast<float>(end) ? static_cast<int>(value) : end;",
   "return value < static_cast<float>(end) ? static_cast<int>(value) - (value < 0 && value != static_cast<float>(static_cast<int>(value))) : end;"))

# --- start-up --------------------------------------------------------------------------------------------------------
m("start", "margins: padding copies nothing", "Owparam*",
  ("par.padtraces = par.tapertr;", "par.padtraces = 0;"))
m("start", "offsets: origin of an even axis", "Owparam*",
  ("sh.o = static_cast<float>(-below_zero) * sh.d;", "sh.o = -0.5f * static_cast<float>(sh.n - 1) * sh.d;"))
m("start", "wavenumbers: the middle of an even axis is negative", "Owparam*",
  ("static_cast<float>(i <= half ? i : i - k.n) / length * two_pi", "static_cast<float>(i < half ? i : i - k.n) / length * two_pi"))
m("start", "check: frequencies may be negative", "Owparam*",
  ("if (w.o < 0.0f || end_of(w) < 0.0)", "if (end_of(w) < 0.0)"))
m("start", "check: the last shot's window is not looked at", "Owparam*",
  ("for (const int shot : {1, par.rec.xd.n}) {", "for (const int shot : {1, 1}) {"))
m("start", "check: no offsets at all pass", "Owparam*",
  ('if (axis.n < 1) refuse("%s=%d: the number of samples must be 1 or more", key.n, axis.n);', 'if (axis.n < 0) refuse("%s=%d: the number of samples must be 1 or more", key.n, axis.n);'))
m("start", "check: an output may be an input", "Owparam* Updates* Datasets* Driver*",
  ("used.by_identity.insert({header_file(layer, *stream), {stream.get(), true}});",
   "if (stream->entrytype != STREAMIN) used.by_identity.insert({header_file(layer, *stream), {stream.get(), true}});"))
m("start", "check: slowness of zero passes", "CheckModel* Owparam*",
  ("if (!(samples[i] > 0.0f && std::isfinite(samples[i]))) {", "if (!(samples[i] >= 0.0f && std::isfinite(samples[i]))) {"))
m("start", "check: windows of the envelope may be 0", "Owparam*",
  ('if (value < 1) refuse("%s=%d: 1 or more is permitted", key, value);', 'if (value < 0) refuse("%s=%d: 1 or more is permitted", key, value);'))
m("start", "check: a horizon that masks everything passes", "Owparam*",
  ("return std::trunc(pick) > last_row;", "return std::trunc(pick) > last_row + 1e9f;"))

# --- evaluation and driver -------------------------------------------------------------------------------------------
ORDER = "Conditioning.StepsComeInTheirOrder Conditioning*"
RESIDUAL_END = "reweight(image, r_image_);\n}\nowdso(par_, adjoint, image, run.pick1);"
m("driver", "order: l1norm before the f-x prediction", ORDER,
  (("if (par_.nxfilt != not_given) {\nconst FilterOutput",
    "for (const bool predicting : {false, true}) {\nif (predicting && par_.nxfilt != not_given) {\nconst FilterOutput"),
   ("if (par_.l1norm) {\nowsmooth(par_, image, r_image_)", "if (!predicting && par_.l1norm) {\nowsmooth(par_, image, r_image_)"),
   (RESIDUAL_END, RESIDUAL_END.replace("}\n", "}\n}\n"))))
m("driver", "order: both offset weights before the prediction", ORDER,
  (("owdso(par_, forward, image, run.pick1);\nif (par_.nxfilt",
    "for (int i = 0; i < 2; ++i) owdso(par_, forward, image, run.pick1);\nif (par_.nxfilt"),
   (RESIDUAL_END, RESIDUAL_END.replace("owdso(par_, adjoint, image, run.pick1)", "static_cast<void>(adjoint)"))))
m("driver", "order: both offset weights at the end", ORDER,
  (("owdso(par_, forward, image, run.pick1);\nif (par_.nxfilt", "static_cast<void>(forward);\nif (par_.nxfilt"),
   (RESIDUAL_END, RESIDUAL_END.replace("owdso(", "for (int i = 0; i < 2; ++i) owdso("))))
m("driver", "order: spline after the dip filter", ORDER,
  (("if (run.spline) {\nconstexpr bool", "for (const bool dips : {true, false}) {\nif (!dips && run.spline) {\nconstexpr bool"),
   ("if (par_.dipflt) {\nconst std::vector<float> pick", "if (dips && par_.dipflt) {\nconst std::vector<float> pick"),
   ("g, !par_.quiet);\n}\nreturn seconds;", "g, !par_.quiet);\n}\n}\nreturn seconds;")))
m("driver", "patches: k2 from the offset axis", "Conditioning.StepsComeInTheirOrder Fx2d* Conditioning*",
  ("design.k2 = truncate(static_cast<float>(par.img.xm.n) * 1.5f / 46.0f);", "design.k2 = truncate(static_cast<float>(par.nsecdim) * 1.5f / 46.0f);"))
m("driver", "patches: k2 from the depth axis", "Conditioning.StepsComeInTheirOrder Fx2d* Conditioning*",
  ("design.k2 = truncate(static_cast<float>(par.img.xm.n) * 1.5f / 46.0f);", "design.k2 = truncate(static_cast<float>(par.nz) * 1.5f / 46.0f);"))
m("driver", "patches: k1 from the midpoint axis", "Conditioning.StepsComeInTheirOrder Fx2d* Conditioning*",
  ("design.k1 = truncate(static_cast<float>(par.nz) * 1.5f / 6.0f);", "design.k1 = truncate(static_cast<float>(par.img.xm.n) * 1.5f / 6.0f);"))
m("driver", "horizon edit after the panel of the model", "Conditioning*",
  ("set_model(run, arrays, x);\nif (arrays.position.pass == Position::Pass::none) write_model(run, arrays, x, titer);",
   "if (arrays.position.pass == Position::Pass::none) write_model(run, arrays, x, titer);\nset_model(run, arrays, x);"))
m("driver", "gradient: its sign after the conditioning", "Conditioning.StepsComeInTheirOrder Driver*",
  (("[](float s) { return -static_cast<double>(s); }", "[](float s) { return static_cast<double>(s); }"),
   ("g, !par_.quiet);\n}\nreturn seconds;", "g, !par_.quiet);\n}\nfor (double& s : g.flat()) s = -s;\nreturn seconds;")))
m("driver", "gradient: plus the adjoint", "Evaluate* Driver* Conditioning*",
  ("[](float s) { return -static_cast<double>(s); }", "[](float s) { return static_cast<double>(s); }"))
m("driver", "l1norm: the envelope squared", "Conditioning*",
  ("y[i] = y[i] * std::abs(y[i]) / std::pow(e[i], e[i]);", "y[i] = y[i] * std::abs(y[i]) / (e[i] * e[i]);"))
m("driver", "shots: the image is not stacked but replaced", "Driver* Conditioning*",
  ("for (std::ptrdiff_t ix = 0; ix < window.n[0]; ++ix) out[ix] += in[ix];", "for (std::ptrdiff_t ix = 0; ix < window.n[0]; ++ix) out[ix] = in[ix];"))
m("driver", "second pass: data are not rewound", "Driver*",
  ("if (run.session.sseek(tag, 0, 0) != 0) refuse(", "if (run.session.program().empty()) refuse("))
m("driver", "exact: columns that do not count", "Exact* Driver*",
  ("if (par_.counts_in_fun(static_cast<int>(ix))) continue;", "continue;"))
m("driver", "bounds: p_up of 1 is a factor", "Driver* *Setup*",
  ("const float p_up = given_up >= 1.0f ? 1.0f + given_up / 100.0f : given_up;", "const float p_up = given_up > 1.0f ? 1.0f + given_up / 100.0f : given_up;"))
m("driver", "first step: fun is not scaled with its gradient", "Driver* Exact*",
  ("solver.fun = state.scale * fun;", "solver.fun = fun;"))
m("driver", "loop: one iteration more than niter", "Driver*",
  ("solver.goes_on() && state.iter <= run.par.niter &&", "solver.goes_on() && state.iter <= run.par.niter + 1 &&"))
m("driver", "panels: no count in the header", "Driver*",
  ('run.session.to_history<int>("n4", titer, tag);', 'if (titer == 1) run.session.to_history<int>("n4", titer, tag);'))
m("driver", "horizon: its file may be an output", "Driver.Nothing*",
  ('session.claim_input({*horizon, "horv0=" + *horizon});', 'static_cast<void>(horizon);'))

# --- tools -----------------------------------------------------------------------------------------------------------
m("tools", "qas: rms over all samples", "Statistics* Numbers* QasTool*",
  ("return std::sqrt(squares / static_cast<double>(finite));", "return std::sqrt(squares / static_cast<double>(finite + non_finite));"))
m("tools", "qas window: interval of a stepped axis", "QasTool* Window*",
  ('session.to_history("d" + k, axis.d * static_cast<double>(window.step[i]));', 'session.to_history("d" + k, axis.d);'))
m("tools", "qas window: step lost when lines are joined", "QasTool* Window*",
  ("while (window.grid.size() > 1 && window.n[0] == window.grid[0] && window.step[1] == 1) {", "while (window.grid.size() > 1 && window.n[0] == window.grid[0]) {"))
m("tools", "qas cat: outer axes inside out", "QasTool* Cat*",
  ("for (std::size_t k = axis; k < first.axes.size(); ++k) outer *= first.axes[k].n;", "for (std::size_t k = axis; k < first.axes.size(); ++k) outer = first.axes[k].n;"))
m("tools", "qas diff: not-a-number against a number passes", "Comparison* Numbers* QasTool*",
  ("if (same(first.re, second.re) && same(first.im, second.im)) return;", "if (same(first.im, second.im)) return;"))
m("tools", "qas from-npy: overflow of double precision passes", "Npy* QasTool*",
  ("if (std::isinf(narrow) && !std::isinf(value))", "if (std::isinf(narrow) && std::isnan(value))"))
m("tools", "score: energy at the neighbour of zero offset", "Score*",
  ("const std::ptrdiff_t zero = std::clamp<std::ptrdiff_t>(nearest(h, 0.0), 0, h.n - 1);", "const std::ptrdiff_t zero = std::clamp<std::ptrdiff_t>(nearest(h, 0.0) + 1, 0, h.n - 1);"))
m("tools", "score: panel of an accepted step", "Score*",
  ("accepted.push_back({static_cast<int>(accepted.size()), line.titer - 1, line.fun});", "accepted.push_back({static_cast<int>(accepted.size()), line.titer, line.fun});"))
m("tools", "taylor: noise by second differences' weights", "Taylor* Noise*",
  ("sum += third * third / 20.0;", "sum += third * third / 6.0;"))
m("tools", "synth: sign of the damping layers", "AcousticFd* Acoustic*",
  ("made.a.push_back(static_cast<float>(d * (b - 1.0) / (d + alpha)));", "made.a.push_back(static_cast<float>(d * (1.0 - b) / (d + alpha)));"))
m("tools", "synth: a tenth of the fourth coefficient", "AcousticFd* Acoustic*",
  ("8.0 / 5, -1.0 / 5, 8.0 / 315, -1.0 / 560}", "8.0 / 5, -1.0 / 5, 8.0 / 315, -1.0 / 5600}"))
m("tools", "synth: dips of layers mirrored", "EarthModel* Earth* Files*",
  ("static_cast<float>(std::atan(p * x.d / z.d) * 180.0 / std::numbers::pi)", "static_cast<float>(-std::atan(p * x.d / z.d) * 180.0 / std::numbers::pi)"))
m("tools", "synth: source function without its phase", "Survey* Focus*",
  ("const std::complex<double> down(0.0, v / (4.0 * pi * frequency(acquisition, k) * dx));", "const std::complex<double> down(v / (4.0 * pi * frequency(acquisition, k) * dx), 0.0);"))
m("tools", "qas npy: the side header does not get its name", "QasTool*",
  ("if (!side.empty() && !streamed) beside.finish();", ""))
m("tools", "qas npy: the old file is emptied at once", "QasTool*",
  ('return session.claim_output({name, name, "give it another name", true});', 'return session.claim_output({name, name, "give it another name"});'))
