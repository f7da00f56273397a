// Words of the command line and blocks of histories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "src/tools/qas/history_text.h"
#include "src/tools/qas/words.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(Words, AreFilesParametersAndFlags) {
    const qastool::Words words =
        qastool::sort_words("qas-x", {"a.H", "f1=3", "-", "--panels", "./b=c", "1=2", "k=a=b", "empty=", "a.b=c"});
    EXPECT_THAT(words.files, ElementsAre("a.H", "stdin", "./b=c", "1=2"));
    EXPECT_THAT(words.parameters, ElementsAre(Pair("f1", "3"), Pair("k", "a=b"), Pair("empty", ""), Pair("a.b", "c")));
    EXPECT_THAT(words.flags, ElementsAre("--panels"));
}

TEST(Words, NameNoCommandsAndNoSockets) {
    for (const char* word : {"rm -rf x|", "|cat", "host:1234", ":1234", "", "a\nb"})
        EXPECT_THROW(qastool::sort_words("qas-x", {word}), qas::Fatal) << word;
}

TEST(Words, UnknownOnesAreRefused) {
    const auto check = [](const char* word, bool writes) {
        qastool::check_words(qastool::sort_words("qas-x", {word}), {"f#", "tol"}, {"--panels"}, writes);
    };
    for (const char* word : {"f1=1", "f9=1", "tol=1", "par=x", "--panels", "file"}) EXPECT_NO_THROW(check(word, false));
    for (const char* word : {"f0=1", "f=1", "f10=1", "fx=1", "to=1", "datapath=/x/", "--panel"})
        EXPECT_THROW(check(word, false), qas::Fatal) << word;
    EXPECT_NO_THROW(check("datapath=/x/", true));
}

TEST(Words, FilesAreCounted) {
    auto words = qastool::sort_words("qas-x", {"a", "b", "-"});
    EXPECT_NO_THROW(qastool::check_files(words, 0, 3));
    EXPECT_THROW(qastool::check_files(words, 0, 2), qas::Fatal);
    EXPECT_THROW(qastool::check_files(words, 4, 5), qas::Fatal);
    words.files.push_back("stdin");
    EXPECT_THROW(qastool::check_files(words, 0, 9), qas::Fatal);
}

TEST(Words, FileNamesReachTheSessionAsTheyAre) {
    for (const std::string name : {"a b", "it's", "say \"x\"", "par=x", "a ", "$HOME/x", "#x"}) {
        qas::Session session(qastool::session_words(qastool::sort_words("qas-x", {"tag=wrong"}), {{"tag", name}}));
        EXPECT_EQ(session.getch<std::string>("tag"), name);
    }
}

TEST(Numbers, AreTakenWholeOrNotAtAll) {
    EXPECT_EQ(qastool::whole_number(" 12 "), 12);
    EXPECT_EQ(qastool::whole_number("+5"), 5);
    EXPECT_EQ(qastool::whole_number("-9223372036854775808"), INT64_MIN);
    for (const char* text : {"", " ", "x", "1x", "1.5", "1e3", "+-1", "--1", "0x10", "9223372036854775808", "3*4"})
        EXPECT_EQ(qastool::whole_number(text), std::nullopt) << text;
    EXPECT_EQ(qastool::real_number(" 1.5e2 "), 150.0);
    for (const char* text : {"", "x", "1x", "nan", "inf", "1e999", "1,2"})
        EXPECT_EQ(qastool::real_number(text), std::nullopt) << text;
}

TEST(Printable, HidesWhatWouldSteerATerminal) {
    EXPECT_EQ(qastool::printable("a\x1b[2J\x7f\tö"), "a?[2J??ö");
}

TEST(History, IsPartedAtTitles) {
    const auto blocks = qastool::history_blocks(
        "n1=5\n\n\n/usr/bin/morvane:   me@host.org   Tue Oct  7 12:00:00 2025\n\t\tFrom par: niter=3\n\t\tn4=1\n"
        "\t\tn4=2\n\t\tn4=3\n\t\tsets next: in=\"x@\"\n\n\nb c:   @h   Wed Nov 12 23:59:59 2025\n\t\tn1=7");
    std::string shown;
    for (const auto& block : blocks) {
        shown += block.program + "|" + block.place + "|" + block.time + "\n";
        for (const auto& line : block.lines)
            shown += (line.parameter ? "par " : "") + line.text + " x" + std::to_string(line.times) + "\n";
    }
    EXPECT_EQ(shown,
              "||\nn1=5 x1\n/usr/bin/morvane|me@host.org|Tue Oct  7 12:00:00 2025\npar niter=3 x1\nn4=3 x3\n"
              "sets next: in=\"x@\" x1\nb c|@h|Wed Nov 12 23:59:59 2025\nn1=7 x1\n");
}

TEST(History, TakesNoOtherLineForATitle) {
    for (const char* line : {"a:   b   Tue Oct  7 12:00:00 2025", ":   a@b   Tue Oct  7 12:00:00 2025",
                             "a:   a@b   Tue Oct  7 12:00:00 20", "a:   a@b   Tue Oct xx 12:00:00 2025",
                             "a: a@b Tue Oct  7 12:00:00 2025", "a:   Tue Oct  7 12:00:00 2025", ":", "a:   ", "   "}) {
        const auto blocks = qastool::history_blocks(line);
        for (const auto& block : blocks) EXPECT_EQ(block.program, "") << line;
    }
    EXPECT_THAT(qastool::history_blocks(""), IsEmpty());
}
