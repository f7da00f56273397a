#include "src/areal/wemva/inversion/course.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "src/areal/wemva/passes/fit.h"

namespace morvane {

namespace {

std::string number(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.8e", value);
    return text;
}

}  // namespace

std::string course_line(const Parms& par, const CourseRow& row, bool accepted) {
    const Measures& m = row.measures;
    std::string line = std::to_string(row.evaluation) + ',' + std::to_string(row.iteration) + ',' +
                       std::to_string(row.stage) + (accepted ? ",1" : ",0");
    line += ',' + number(row.fun) + ',' + number(m.data) + ',' + number(m.regularisation);
    line += ',' + number(row.gradient) + ',' + number(row.step) + ',';
    if (zero_sample(par) >= 0) line += number(m.share);
    line += ',';
    if (par.fit) line += number(m.fit);
    char spent[80];
    std::snprintf(spent, sizeof spent, ",%.6f,%.6f", row.spent.seconds, row.spent.processor);
    return line + spent;
}

Course::Course(qas::Session& session, const Parms& par)
    : session_(session), par_(par), keeps_best_(session.exist_file("best")) {
    if (par.course) file_.emplace(session, "course", session.from_param<std::string>("course"));
}

void Course::begin() {
    if (!file_) return;
    file_->begin();
    file_->line(
        "evaluation,iteration,stage,accepted,fun,data,regularisation,gradient,step,share,fit,"
        "seconds,processor_seconds");
}

void Course::begin_stage() {
    fits_.clear();
}

void Course::evaluated(CourseRow row, std::span<const double> x) {
    trial_.assign(x.begin(), x.end());
    if (accepted_.empty()) accepted_ = trial_;
    row.step = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i)
        row.step = std::max(row.step, std::abs(x[i] - accepted_[i]) / std::abs(accepted_[i]));
    waiting_ = row;
}

void Course::answered(bool accepted) {
    if (!waiting_) return;
    const CourseRow row = *waiting_;
    waiting_.reset();
    accepted |= row.start;
    if (file_) file_->line(course_line(par_, row, accepted));
    if (!accepted) return;
    accepted_ = trial_;
    if (!par_.fit) return;
    fits_.push_back(row.measures.fit);
    if (first_.panel == 0) first_ = {row.evaluation, row.measures.fit};
    if (best_.panel != 0 && row.measures.fit <= best_.fit) return;
    best_ = {row.evaluation, row.measures.fit};
    if (keeps_best_) write_best();
}

double Course::last_rise() const {
    const auto patience = static_cast<std::size_t>(par_.stop_patience);
    return fits_.size() > patience ? fits_.back() - fits_[fits_.size() - 1 - patience] : INFINITY;
}

bool Course::fit_has_settled() const {
    return par_.stops_by_fit && last_rise() < static_cast<double>(par_.stop_rise);
}

/// In place where the data can be positioned, so that a run that is killed leaves the best model so far; otherwise at
/// the end.
void Course::write_best() {
    best_model_.assign(accepted_.begin(), accepted_.end());
    put_best();
}

void Course::put_best() {
    best_written_ = session_.sseekable("best");
    if (!best_written_) return;
    session_.sseek("best", 0, 0);
    session_.srite("best", best_model_.data(), static_cast<std::int64_t>(best_model_.size() * sizeof(float)));
}

void Course::archive(Archive& archive) {
    std::int64_t length = file_ && !archive.reads() ? file_->sync() : 0;
    archive.value("length of course", length);
    if (file_ && archive.reads()) length_ = length;
    bool waits = waiting_.has_value();
    CourseRow row = waiting_.value_or(CourseRow{});
    archive.value("course: a row waits", waits);
    archive.value("course: row", row);
    if (archive.reads() && waits) waiting_ = row;
    archive.sequence("course: accepted model", accepted_);
    archive.sequence("course: trial model", trial_);
    archive.sequence("course: fits", fits_);
    archive.value("course: first", first_);
    archive.value("course: best", best_);
    archive.sequence("course: best model", best_model_);
}

void Course::resume() {
    if (file_) file_->resume(length_);
    if (keeps_best_ && !best_model_.empty()) put_best();
}

void Course::finish() {
    if (!best_written_ && !best_model_.empty())
        session_.srite("best", best_model_.data(), static_cast<std::int64_t>(best_model_.size() * sizeof(float)));
    if (file_) file_->finish();
}

}  // namespace morvane
