#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/tools/morvane_prepare/segy_file.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"
#include "tests/src/tools/morvane_prepare/segy_writer.h"

using namespace morvane;

using prepare::SegyFile;
using prepare::SegyOptions;
using testing::HasSubstr;

namespace {

/// Three traces whose samples every format holds.
std::vector<SegyTrace> three() {
    std::vector<SegyTrace> traces;
    for (int i = 0; i < 3; ++i)
        traces.push_back({{{73, 1000 + i}, {81, -500 * i}, {71, -10}, {41, 7}, {69, 100}, {109, 8}, {29, 1}, {115, 5}},
                          {static_cast<float>(i), -100, 64, 1, -3}});
    return traces;
}

std::string refusal(const std::string& bytes, const SegyOptions& options) {
    const files::TempDir dir;
    files::write_text(dir / "x.sgy", bytes);
    return ::refusal([&] {
        SegyFile file(dir / "x.sgy", options);
        std::vector<float> samples(static_cast<std::size_t>(file.info().samples));
        for (int i = 0; i < file.info().traces; ++i) {
            file.header(i);
            file.samples(i, samples);
        }
    });
}

}  // namespace

TEST(SegyFile, EveryFormatOrderAndRevision) {
    for (const int format : {1, 2, 3, 5, 8})
        for (const bool little : {false, true})
            for (const auto& [revision, extended] : {std::pair{0, 0}, {1, 2}, {2, -2}}) {
                SCOPED_TRACE(std::to_string(format) + (little ? " little " : " big ") + std::to_string(revision));
                const files::TempDir dir;
                SegyWriter writer;
                writer.format = format;
                writer.little = little;
                writer.revision = revision;
                writer.extended = extended;
                files::write_text(dir / "x.sgy", writer.bytes(three()));
                SegyFile file(dir / "x.sgy", {});
                EXPECT_EQ(file.info().traces, 3);
                EXPECT_EQ(file.info().little, little);
                EXPECT_EQ(file.info().revision, revision);
                EXPECT_NEAR(file.info().dt, 0.004, 1e-12);
                EXPECT_EQ(file.info().text.at(0), "C 1 A LINE OF A TEST");
                const prepare::TraceHeader head = file.header(2);
                EXPECT_DOUBLE_EQ(head.source_x, 100.2);
                EXPECT_DOUBLE_EQ(head.group_x, -100);
                EXPECT_DOUBLE_EQ(head.group_elevation, 700);
                EXPECT_DOUBLE_EQ(head.delay, 0.008);
                std::vector<float> samples(5);
                file.samples(2, samples);
                EXPECT_THAT(samples, testing::ElementsAre(2, -100, 64, 1, -3));
            }
}

TEST(SegyFile, WhatHeadersLeaveOut) {
    const files::TempDir dir;
    SegyWriter writer;
    writer.samples = 0;
    writer.micro = 0;
    std::vector<SegyTrace> traces = three();
    traces[0].words[117] = 2000;
    std::string bytes = writer.bytes(traces);
    files::write_text(dir / "x.sgy", bytes.substr(0, bytes.size() - 3));
    SegyOptions options;
    options.truncated = true;
    SegyFile file(dir / "x.sgy", options);
    EXPECT_EQ(file.info().samples, 5);
    EXPECT_NEAR(file.info().dt, 0.002, 1e-12);
    EXPECT_EQ(file.info().traces, 2);
    EXPECT_EQ(file.info().notes.size(), 3u);
    EXPECT_EQ(prepare::scaled(7, 0), 7);
    EXPECT_EQ(prepare::scaled(7, -32768), 7 / 32768.0);
}

TEST(SegyFile, RefusesWhatIsWrongWithTheTrace) {
    struct Case {
        std::function<void(SegyWriter&, std::vector<SegyTrace>&, std::string&)> spoil;
        const char* says;
    };
    const auto late = [](const auto& change) {
        return [change](SegyWriter& w, std::vector<SegyTrace>& t, std::string& b) { change(b = w.bytes(t), b); };
    };
    const Case cases[] = {
        {late([](auto&&, std::string& b) { b.resize(3599); }), "3599 bytes are too few"},
        {late([](auto&&, std::string& b) { b.resize(3600 + 240 + 12); }), "do not hold trace 1"},
        {late([](auto&&, std::string& b) { b.resize(b.size() - 1); }), "259 bytes into trace 3"},
        {late([](auto&&, std::string& b) { b.resize(3600); }), "do not hold trace 1"},
        {[](SegyWriter& w, auto& t, auto&) { w.samples = 0, t[0].words.erase(115); }, "0 samples per trace"},
        {[](SegyWriter& w, auto&, auto&) {
             w.revision = 2, w.more = {{3269, 0x8000}};
         },
         "-2147483648 samples"},
        {[](SegyWriter& w, auto&, auto&) {
             w.revision = 2, w.more = {{3269, 0x7fff}, {3271, -1}};
         },
         "2147483647"},
        {[](SegyWriter& w, auto&, auto&) {
             w.revision = 2, w.more = {{3269, 0x0100}};
         },
         "do not hold trace 1"},
        {[](SegyWriter& w, auto&, auto&) {
             w.revision = 2, w.more = {{3507, 1}};
         },
         "further trace headers"},
        {[](SegyWriter& w, auto&, auto&) {
             w.revision = 2, w.more = {{3521, 0x7000}};
         },
         "first trace at byte"},
        {[](SegyWriter& w, auto&, auto&) {
             w.more = {{3505, -1}};
         },
         "have no end"},
        {[](SegyWriter& w, auto&, auto&) { w.format = 6; }, "sample format 6 is not read"},
        {[](SegyWriter& w, auto&, auto&) { w.micro = 0; }, "no sample interval"},
        {[](SegyWriter&, auto& t, auto&) { t[0].words[117] = 1; }, "1e-06 s in trace 1"},
        {[](SegyWriter&, auto& t, auto&) { t[1].words[117] = 2000; }, "trace 2 has a sample interval"},
        {[](SegyWriter&, auto& t, auto&) { t[2].words[115] = 6; }, "trace 3 has 6 samples"},
        {[](SegyWriter&, auto& t, auto&) { t[1].words[89] = 3; }, "trace 2 has coordinates in degrees"},
        {[](SegyWriter&, auto& t, auto&) { t[1].samples[3] = NAN; }, "trace 2, sample 4 is not a finite"},
        {[](SegyWriter&, auto& t, auto&) { t[2].samples[0] = -INFINITY; }, "trace 3, sample 1 is not a finite"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.says);
        SegyWriter writer;
        std::vector<SegyTrace> traces = three();
        std::string bytes;
        c.spoil(writer, traces, bytes);
        if (bytes.empty()) bytes = writer.bytes(traces);
        EXPECT_THAT(refusal(bytes, {}), HasSubstr(c.says));
    }
    EXPECT_THROW(SegyFile("/nonexistent/x.sgy", {}), qas::Fatal);
    EXPECT_THROW(SegyFile("/dev/zero", {}), qas::Fatal);
    prepare::TraceWords words;
    words.group_x = 74;
    EXPECT_THROW(check_words(words), qas::Fatal);
}
