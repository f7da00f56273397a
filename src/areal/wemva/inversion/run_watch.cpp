#include "src/areal/wemva/inversion/run_watch.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/help.h"
#include "src/areal/wemva/restart/fingerprint.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/checks.h"

namespace morvane {

namespace {

std::string inputs_of(qas::Session& session, const Parms& par) {
    std::string lines = fingerprint_of_inputs(session, {"vel", "rec", "sou"});
    if (par.dipflt) lines += fingerprint_of_inputs(session, {"dipfile"});
    for (const char* key : {"horv0", "stages"})
        if (const auto file = session.getch<std::string>(key)) lines += fingerprint_of_file(key, *file);
    return lines;
}

/// `then` as it was kept, `now` as it is: must be equal.
void keep_same(Archive& archive, const char* name, const std::string& now, const std::string& file) {
    std::string then = now;
    archive.sequence(name, then);
    compare_fingerprints("checkpoint=" + file, then, now);
}

std::string place(const RunState& state, const Position& position) {
    if (position.pass == Position::Pass::none) return "behind evaluation " + std::to_string(state.outcome.evaluations);
    return std::string(position.pass == Position::Pass::image ? "image" : "gradient") + " of evaluation " +
           std::to_string(state.titer) + ", shot " + std::to_string(position.shot);
}

std::string time_stamp() {
    const std::time_t now = std::time(nullptr);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
    return text;
}

std::string quoted(const std::string& word) {
    if (!word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                                "_-+=./,:@%") == std::string::npos)
        return word;
    std::string text = "'";
    for (const char c : word) {
        if (c == '\'') text += "'\\'";
        text += c;
    }
    return text += '\'';
}

}  // namespace

std::string line_to_go_on(const qas::Session& session) {
    std::string line;
    bool resumes = false;
    for (const std::string& word : session.words()) {
        line += quoted(word) + " ";
        resumes = resumes || word == "resume=y" || word == "resume=auto";
    }
    if (!resumes) line += "resume=y ";
    line += "< /dev/null";
    if (const std::string history = qas::findnm(STDOUT_FILENO); !history.empty()) line += " >> " + quoted(history);
    return line;
}

RunWatch::RunWatch(InversionSetup& setup, RunState& state, EvaluationArrays& arrays, Team& team)
    : setup_(setup),
      state_(state),
      arrays_(arrays),
      team_(team),
      written_at_(monotonic_seconds()),
      progress_(setup.session.program(), setup.par) {
    const Parms& par = setup.par;
    if (!par.checkpoint.empty()) {
        file_.emplace(setup.session, par.checkpoint);
        parameters_ = fingerprint_of_parameters(setup.session);
        inputs_ = inputs_of(setup.session, par);
        resumes_ = par.resume != "n" && (par.resume == "y" || file_->existed());
        if (resumes_ && !file_->existed())
            refuse("resume=y: checkpoint=%s is not there; resume=auto begins a new run then", par.checkpoint.c_str());
        if (!resumes_ && file_->existed())
            warn("checkpoint=%s is there, and this run begins anew; resume=y would have gone on from it",
                 par.checkpoint.c_str());
    }
    interruption::listen();
}

RunWatch::~RunWatch() {
    interruption::forget();
}

void RunWatch::keep(Archive& archive) {
    const std::string& name = setup_.par.checkpoint;
    keep_same(archive, "version", "version=" + std::string(qas::version()), name);
    keep_same(archive, "parameters", parameters_, name);
    keep_same(archive, "inputs", inputs_, name);
    keep_stage(archive);
    state_.archive(archive);
    setup_.archive(archive);
    if (report_) report_bytes_ = report_->sync();
    archive.value("length of iterate.dat", report_bytes_);
    arrays_.archive(archive);
}

/// What comes behind has the sizes of the stage.
void RunWatch::keep_stage(Archive& archive) {
    archive.value("stage", state_.stage);
    archive.value("first iteration of the stage", state_.first_iter);
    if (setup_.stages.empty()) return;
    std::vector<double> model = setup_.start;
    archive.values("start model of the stage", std::span(model));
    if (!archive.reads()) return;
    if (state_.stage < 1 || state_.stage > static_cast<int>(setup_.stages.size()))
        throw ArchiveError{"has stage " + std::to_string(state_.stage) + " of " + std::to_string(setup_.stages.size())};
    setup_.enter(setup_.stages[static_cast<std::size_t>(state_.stage - 1)], model);
    state_.solver = SolverState(setup_);
    arrays_ = EvaluationArrays(setup_.par);
}

void RunWatch::read() {
    file_->read([this](Archive& archive) { keep(archive); });
    const int done = state_.iter - state_.first_iter;
    if (setup_.par.niter < done)
        refuse("checkpoint=%s: niter=%d, and the %s has done %d iterations", setup_.par.checkpoint.c_str(),
               setup_.par.niter, setup_.stages.empty() ? "run" : "stage", done);
}

void RunWatch::resume_outputs(qas::PlainOutput& report) {
    setup_.resume_outputs();
    // each stage begins the report anew, so that the one before may have been emptied behind the checkpoint
    std::error_code unknown;
    const auto there = static_cast<std::int64_t>(std::filesystem::file_size("iterate.dat", unknown));
    const bool more_stages = state_.stage < static_cast<int>(setup_.stages.size());
    report.resume(more_stages && !unknown ? std::min(report_bytes_, there) : report_bytes_);
    setup_.session.to_history<std::string>("resumed", time_stamp() + ", " + place(state_, arrays_.position));
}

void RunWatch::begin(qas::PlainOutput& report) {
    report_ = &report;
}

void RunWatch::check_outputs() {
    if (!file_) return;
    setup_.session.open_outputs(outputs_with_data(setup_.par, setup_.session));
    for (const qas::OutputExtent& extent : setup_.session.sync_outputs())
        if (extent.data.empty() && extent.tag != "out")
            refuse("checkpoint=%s: the data of output %s are not in an ordinary file, and could not be gone on with",
                   setup_.par.checkpoint.c_str(), extent.tag.c_str());
}

void RunWatch::write() {
    progress_.clear();
    team_.undisturbed([this] { file_->write([this](Archive& archive) { keep(archive); }); });
    written_at_ = monotonic_seconds();
}

void RunWatch::before_shot(const Position& position) {
    const int signal = interruption::signal();
    const double wait = 60.0 * static_cast<double>(setup_.par.checkpoint_minutes);
    if (file_ && (signal != 0 || monotonic_seconds() - written_at_ >= wait)) write();
    if (signal == 0) return progress_.show(state_.iter, state_.titer, position);
    progress_.clear();
    throw Interrupted{signal, file_ && file_->is_usable()};
}

void RunWatch::finish() {
    progress_.clear();
    if (file_) write();
}

}  // namespace morvane
