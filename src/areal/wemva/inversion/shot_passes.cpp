#include "src/areal/wemva/inversion/shot_passes.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <numeric>
#include <string>
#include <utility>

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/exec_time.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

constexpr int most_groups = 1024;
constexpr double patience = 0.1;  // seconds between two looks at signals and checkpoints while others work

std::string minutes(float seconds, int width) {
    return column_fixed(seconds / 60.0f, width, 2);
}

/// Divides by the illumination where there is any.
void compensate(View<float, 3> image, View<const float, 2> illumination) {
    for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
        for (std::ptrdiff_t ih = 0; ih < image.n[1]; ++ih)
            for (std::ptrdiff_t ix = 0; ix < image.n[0]; ++ix)
                image(ix, ih, iz) =
                    image(ix, ih, iz) * illumination(ix, iz) / (illumination(ix, iz) * illumination(ix, iz) + 0.5f);
}

/// (nx, nz) as (nx, 1, nz)
template <class T>
View<T, 3> as_image(View<T, 2> panel) {
    return {panel.p, {panel.n[0], 1, panel.n[1]}};
}

/// The levels of an image from `first` on.
View<float, 3> levels_from(View<float, 3> image, int first, std::ptrdiff_t count) {
    return {image.slice(first).p, {image.n[0], image.n[1], count}};
}

/// What several shots of a group contribute, added in their order.
class GroupSum {
    Array<float, 3> image_;
    std::vector<double> sums_;
    std::vector<float> seconds_;
    Part part_;

public:
    void begin(const Parms& par, const ShotGroup& group) {
        part_ = Part{};
        part_.group = group;
        sums_.clear();
        seconds_.clear();
        image_ = Array<float, 3>();
        if (!par.areal) part_.first_column = window_column(par, group.first);
    }
    /// Columns from the first shot's window to the last one's.
    void add(const Parms& par, const Part& shot) {
        if (seconds_.empty()) {
            const int end = par.areal ? 1 : window_column(par, part_.group.end - 1);
            image_ = Array<float, 3>({shot.image.n[0] + end - part_.first_column, shot.image.n[1], shot.image.n[2]});
            sums_.assign(shot.sums.size(), 0.0);
        }
        stack(shot.image, image_, shot.first_column - part_.first_column + 1, shot.threads);
        for (std::size_t i = 0; i < sums_.size(); ++i) sums_[i] += shot.sums[i];
        seconds_.insert(seconds_.end(), shot.seconds.begin(), shot.seconds.end());
        part_.threads = shot.threads;
    }
    const Part& sum() {
        part_.image = image_;
        part_.sums = sums_;
        part_.seconds = seconds_;
        return part_;
    }
};

/// A pass over the shots that are not done yet.
class ShotPass : public Sum {
    std::unique_ptr<Team> alone_;
    Position::Pass pass_;
    GroupSum group_;
    float seconds_ = 0.0f;

    /// The leader looks at signals, checkpoint and progress between shots.
    void look() {
        Position& at = arrays_.position;
        at.shot = std::min(before_ + team_.shots_added() + 1, run_.par.rec.xd.n);
        if (run_.watch) run_.watch->before_shot(at);
    }

    /// After a shot: if it was dropped its sums are wanting, and the pass ends here.
    bool is_dropped() {
        team_.check();
        if (!interruption::is_overdue()) return false;
        if (!team_.leads()) return true;
        if (!run_.watch) return false;
        run_.watch->before_shot(arrays_.position);
        return false;
    }

    /// Computes a shot. In a team an error tells where it happened.
    Part computed(const ShotGroup& group, int ishot) {
        std::string trouble;
        try {
            const float start = owexec_time();
            Part part = compute(ishot);
            part.group = group;
            part.first_column = arrays_.shots.first_column();
            seconds_ = owexec_time() - start;
            part.seconds = {&seconds_, 1};
            return part;
        } catch (const std::bad_alloc&) {
            if (team_.size() == 1) throw;
            trouble = "not enough memory: fewer threads (node) or fewer ranks on this host need less\n";
        } catch (const qas::Fatal& error) {
            if (team_.size() == 1) throw;
            trouble = error.what();
        }
        throw qas::Fatal(team_.place() + ", shot " + std::to_string(ishot) + ": " + trouble);
    }

    void work(const ShotGroup& group) {
        if (group.shots() > 1) group_.begin(run_.par, group);
        for (int ishot = group.first; ishot < group.end; ++ishot) {
            if (team_.leads()) look();
            const Part part = computed(group, ishot);
            if (is_dropped()) return;
            if (group.shots() == 1) return deliver(part);
            group_.add(run_.par, part);
        }
        deliver(group_.sum());
    }

    void deliver(const Part& part) {
        while (!team_.deliver(part, patience)) look();
    }

protected:
    const Inversion& run_;
    EvaluationArrays& arrays_;
    Team& team_;
    int before_ = 0;  // shots done when the pass began here

    ShotPass(const Inversion& run, EvaluationArrays& arrays, Position::Pass pass)
        : alone_(run.team ? nullptr : serial_team()),
          pass_(pass),
          run_(run),
          arrays_(arrays),
          team_(run.team ? *run.team : *alone_) {}

    /// One shot's contribution; its memory stands until the next.
    virtual Part compute(int ishot) = 0;
    virtual void clear_sums() = 0;
    /// What members need beside the model.
    virtual void share_more() = 0;

    /// Marks the shots of a part as done and lists them.
    void finish(const Part& part) {
        for (int ishot = part.group.first; ishot < part.group.end; ++ishot) {
            arrays_.done[static_cast<std::size_t>(ishot - 1)] = 1;
            const float seconds = part.seconds[static_cast<std::size_t>(ishot - part.group.first)];
            run_.listing.line("EXTRAPOLATED WAVEFIELDS = " + column_int(ishot, 4) + " OUT OF " +
                              column_int(run_.par.rec.xd.n, 4) + " IN " + minutes(seconds, 6) + " min");
        }
    }

public:
    /// Fixed groups, so that sums do not depend on who computes what; as many as keep a large team busy. One shot at a
    /// time where the order of additions is that of one process, or each shot changes what the next one meets.
    int shots_at_once() const {
        const bool grouped = (run_.par.reproducible || team_.size() > 1) && !run_.par.compensates();
        return grouped ? (run_.par.rec.xd.n + most_groups - 1) / most_groups : 1;
    }

    void lead() {
        const Parms& par = run_.par;
        Position& at = arrays_.position;
        if (at.pass != pass_) {
            at = {pass_, 1};
            arrays_.done.assign(static_cast<std::size_t>(par.rec.xd.n), 0);
            clear_sums();
        }
        before_ = static_cast<int>(std::ranges::count(arrays_.done, 1));
        team_.begin({static_cast<int>(pass_), 0});
        share(team_, arrays_.model.flat());
        share_more();
        arrays_.shots.rewind(run_);
        struct Withdrawal {
            Team& team;
            ~Withdrawal() { team.withdraw(); }
        } withdrawal{team_};
        team_.hand_out(shot_groups(shots_at_once(), arrays_.done), par.reproducible || par.compensates(), *this);
        while (const auto group = team_.next()) work(*group);
        while (!team_.complete(patience)) look();
    }

    void join() {
        share(team_, arrays_.model.flat());
        share_more();
        arrays_.shots.rewind(run_);
        while (const auto group = team_.next()) work(*group);
    }
};

class ImagePass : public ShotPass {
public:
    ImagePass(const Inversion& run, EvaluationArrays& arrays) : ShotPass(run, arrays, Position::Pass::image) {}

    Part compute(int ishot) override {
        const Parms& par = run_.par;
        Shots& shots = arrays_.shots;
        shots.load(run_, arrays_.model, ishot);
        arrays_.deltai.fill(0.0f);
        arrays_.illum.fill(0.0f);
        const int nodes = owwei_init(par);
        owwei(shots.context(run_, nodes), shots.recv, shots.source, shots.vel, arrays_.deltai, arrays_.illum);
        Part part;
        part.image = arrays_.deltai;
        part.light = arrays_.illum;
        part.threads = nodes;
        return part;
    }

    void add(const Part& part) override {
        if (part.image.n[2] > 0)
            stack(part.image, levels_from(arrays_.b_image, part.first_level, part.image.n[2]), part.first_column,
                  part.threads);
        if (!part.is_last) return;
        if (run_.par.compensates()) {
            stack(part.light, arrays_.illumination, part.first_column);
            compensate(arrays_.b_image, arrays_.illumination);
        }
        finish(part);
    }

    void clear_sums() override { arrays_.b_image.fill(0.0f); }
    /// A member has no stack; the memory is for the part that waits to be taken.
    void share_more() override {
        if (!team_.leads()) arrays_.b_image = Array<float, 3>();
    }
};

class GradientPass : public ShotPass {
    Array<double, 2> fit_sums_;  // of one shot

public:
    GradientPass(const Inversion& run, EvaluationArrays& arrays)
        : ShotPass(run, arrays, Position::Pass::gradient), fit_sums_(arrays.fit_sums) {}

    Part compute(int ishot) override {
        const Parms& par = run_.par;
        Shots& shots = arrays_.shots;
        shots.load(run_, arrays_.model, ishot);
        arrays_.deltas.fill(0.0f);
        fit_sums_.fill(0.0);
        const int nodes = owwemva_init(par, ishot);
        cut_window(arrays_.b_image, arrays_.deltai, shots.first_column());
        WaveContext context = shots.context(run_, nodes);
        const Prediction prediction{arrays_.zero_window, fit_sums_};
        if (par.fit) {
            cut_window(arrays_.zero_offset, arrays_.zero_window, shots.first_column());
            context.prediction = &prediction;
        }
        arrays_.objective->back_project(context, shots, arrays_.deltai, arrays_.deltas, run_.session);
        Part part;
        part.image = as_image<const float>(arrays_.deltas.view());
        part.sums = fit_sums_.flat();
        return part;
    }

    void add(const Part& part) override {
        if (part.image.n[2] > 0)
            stack(part.image, levels_from(as_image(arrays_.scats.view()), part.first_level, part.image.n[2]),
                  part.first_column, part.threads);
        if (!part.is_last) return;
        const auto sums = arrays_.fit_sums.flat();
        for (std::size_t i = 0; i < sums.size(); ++i) sums[i] += part.sums[i];
        finish(part);
    }

    void clear_sums() override {
        arrays_.scats.fill(0.0f);
        arrays_.fit_sums.fill(0.0);
    }
    void share_more() override {
        const Parms& par = run_.par;
        if (!team_.leads()) arrays_.b_image = Array<float, 3>({par.img.xm.n, par.nsecdim, par.img.z.n});
        share(team_, arrays_.b_image.flat());
        share(team_, arrays_.zero_offset.flat());
    }
};

}  // namespace

EvaluationArrays::EvaluationArrays(const Parms& par)
    : objective(make_objective(par)),
      shots(par, objective->is_smooth()),
      model({par.img.xm.n, par.img.z.n}),
      b_image({par.img.xm.n, par.nsecdim, par.img.z.n}),
      deltai({par.kxm.n, par.nsecdim, par.img.z.n}),
      deltas({par.kxm.n, par.img.z.n}),
      scats({par.img.xm.n, par.img.z.n}),
      illum(par.compensates() ? Array<float, 2>({par.kxm.n, par.img.z.n}) : Array<float, 2>()),
      illumination(par.compensates() ? Array<float, 2>({par.img.xm.n, par.img.z.n}) : Array<float, 2>()) {
    if (!par.fit) return;
    zero_offset = model;
    zero_window = deltas;
    fit_sums = Array<double, 2>({3, par.rec.w.n});
}

void EvaluationArrays::archive(Archive& archive) {
    archive.value("position", position);
    archive.value("measures", measures);
    archive.value("warned of signs", warned_of_signs);
    archive.values("illumination", illumination);
    objective->archive(archive);
    if (position.pass == Position::Pass::none) return;
    archive.sequence("shots done", done);
    archive.values("image", b_image);
    if (position.pass != Position::Pass::gradient) return;
    archive.values("update", scats);
    archive.values("zero-offset image", zero_offset);
    archive.values("sums of fit", fit_sums);
}

void form_image(const Inversion& run, EvaluationArrays& arrays, int iter) {
    const float start = owexec_time();
    ImagePass(run, arrays).lead();
    run.listing.line("COMPUTED BACKGROUND IMAGE IN " + minutes(owexec_time() - start, 10) + " min OF ITERATION # " +
                     column_int(iter, 4));
}

void back_project(const Inversion& run, EvaluationArrays& arrays) {
    GradientPass(run, arrays).lead();
}

void join_pass(const Inversion& run, EvaluationArrays& arrays, Team::Task task) {
    if (task.what == static_cast<int>(Position::Pass::image)) ImagePass(run, arrays).join();
    if (task.what == static_cast<int>(Position::Pass::gradient)) GradientPass(run, arrays).join();
}

}  // namespace morvane
