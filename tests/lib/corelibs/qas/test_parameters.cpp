#include <limits>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/parameters/scanner.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "tests/lib/corelibs/qas/workplace.h"

namespace {

class Parameters : public Workplace {};

/// Pairs that a text defines, in name order, as "name<value>".
std::string pairs(const std::string& text) {
    qas::ParTable table;
    std::int64_t clock = 0;
    qas::getpar_scan(table, clock, text, qas::Origin::user);
    std::vector<std::string> list;
    for (const auto& [name, entry] : table) list.push_back(name + "<" + entry.value.value_or("(null)") + ">");
    std::sort(list.begin(), list.end());
    return std::accumulate(list.begin(), list.end(), std::string());
}

}  // namespace

TEST_F(Parameters, ScannerTokenRules) {
    struct {
        const char *fault, *text, *expected;
    } const rows[] = {
        {"two pairs on a line", "x=1 y=2\n", "x<1>y<2>"},
        {"leading blanks", "  x=1\n\ty=2\n", "x<1>y<2>"},
        {"a name cannot start with a digit", "3x=1\n-a=2\n_b=3\n", ""},
        {"a name may hold digits, dash, underscore", "a-3_b=1\n", "a-3_b<1>"},
        {"a dot is no name character", "qas.par_job=0\n", ""},
        {"comment goes to the end of its line only", "#x=1\ny=2\n", "y<2>"},
        {"a # inside a line is only skipped", "a #x=1\n", "x<1>"},
        {"blanks before # make it no comment", "  # x=1 #y=2\n", "x<1>y<2>"},
        {"a # parts a word from nothing", "a#x=1\n", ""},
        {"a # behind a blank and a word", "a b#x=1\n", ""},
        {"a name needs a blank before it", "a:x=1 (y=2) .z=3\n", ""},
        {"words before a name are skipped", "\t\tFrom par: nh=4\n", "nh<4>"},
        {"the line that names data", "\t\tsets next: in=\"/d/x.H@\"\n", "in</d/x.H@>"},
        {"empty value before a blank, next name still found", "a= b=1\n", "a<>b<1>"},
        {"empty value before a newline", "a=\nb=1\n", "a<>b<1>"},
        {"empty value at the very end", "a=", "a<>"},
        {"bare value at the very end", "a=12", "a<12>"},
        {"a bare value keeps = # and quotes", "a=b=c#d\"e'f x=1\n", "a<b=c#d\"e'f>x<1>"},
        {"double quotes keep blanks", "t=\"a b\" x=1\n", "t<a b>x<1>"},
        {"single quotes keep double ones", "t='a \"b\"'\n", "t<a \"b\">"},
        {"a doubled quote stands for one", "t=\"a\"\"b\"\n", "t<a\"b>"},
        {"doubled single quote", "t='it''s'\n", "t<it's>"},
        {"empty quotes are an empty value", "t=\"\" x=1\n", "t<>x<1>"},
        {"a newline closes a quote, the next line is normal", "b=\"unterminated\nx=1\n", "b<unterminated>x<1>"},
        {"a quote open at the very end", "b=\"open", "b<open>"},
        {"no name straight behind a closing quote", "a=\"1\"b=2\n", "a<1>"},
        {"the last one wins", "n4=1\nn4=3\n", "n4<3>"},
    };
    for (const auto& [fault, text, expected] : rows) EXPECT_EQ(pairs(text), expected) << fault;
    EXPECT_EQ(pairs(std::string("\0 x=1 \xff\n y=2\0\n", 14)), "x<1>y<2" + std::string(1, '\0') + ">");
}

TEST_F(Parameters, ATokenMayHave8191Characters) {
    const auto text = [](const char* before, std::size_t count, char c, const char* behind) {
        return std::string(before).append(count, c).append(behind);
    };
    EXPECT_EQ(pairs(text("a=", 8191, 'v', "")), text("a<", 8191, 'v', ">"));
    for (const std::string& long_token :
         {text("a=", 8192, 'v', ""), text("a=\"", 8190, ' ', "\""), text("", 8191, 'n', "=1")})
        EXPECT_EQ(refusal([&] { pairs(long_token); }), "token too large, exceeds YYLMAX");
    EXPECT_EQ(pairs(text("#", 9000, 'c', "\nx=1 ").append(9000, 'w')), "x<1>");
}

TEST_F(Parameters, CommandLine) {
    struct {
        const char* fault;
        std::vector<std::string> words;
        const char *key, *expected;
    } const rows[] = {
        {"the last occurrence wins", {"n=3", "n=7"}, "n", "7"},
        {"a bare name hides an earlier value", {"a=1", "a="}, "a", "(absent)"},
        {"a value after a bare name counts", {"a=", "a=2"}, "a", "2"},
        {"words without = pass", {"verbose", "=x", "a=1"}, "a", "1"},
        {"the shell parted the words: blanks stay", {"a=b c=d"}, "a", "b c=d"},
        {"names of any characters", {"qas.par_job=0"}, "qas.par_job", "0"},
        {"quotes go through the scanner", {"t=\"a b\""}, "t", "a b"},
        {"a word with quotes may hold several pairs", {"t='a b' u=2"}, "u", "2"},
        {"trailing blanks of a word are cut", {"a=1  "}, "a", "1"},
        {"an empty quoted value is a value", {"a=\"\""}, "a", ""},
        {"synonyms: the later stored", {"nh=1", "jh=2"}, "nh jh", "2"},
        {"synonyms: whatever their order", {"jh=2", "nh=1"}, "nh  jh", "1"},
        {"a synonym given bare later hides", {"nh=1", "jh="}, "nh jh", "(absent)"},
    };
    for (const auto& [fault, words, key, expected] : rows)
        EXPECT_EQ(session(words)->getch<std::string>(key).value_or("(absent)"), expected) << fault;
}

TEST_F(Parameters, AWordOfTheCommandLineHas255Characters) {
    const auto value = [&](const std::string& text) {
        const std::string word = "a=" + text;
        const char* const words[] = {"prog", word.c_str()};
        qas::Layer layer;
        prepare(layer, {});
        qas::initpar(layer, qas::finitpar(2, words, layer.notes));
        return qas::getch_text(layer, "a").value_or("");
    };
    EXPECT_EQ(value(std::string(253, 'x') + "  "), std::string(253, 'x'));
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(value(std::string(252, 'x') + " y"), std::string(252, 'x'));
    EXPECT_THAT(errors(), HasSubstr("warning: a word of the command line has 256 characters and is cut after 255 "));
    EXPECT_EQ(refusal([&] { value(std::string(9000, 'x')); }),
              "parameter a: a value of 9000 characters; at most 8191 can be read\n");
}

TEST_F(Parameters, ParameterFilesAreReadWhereTheyAreNamed) {
    write_text("a.p", "niter=2 par=b.p tail=a\nlast=a");
    write_text("b.p", "tail=b inner=b\n");
    EXPECT_EQ(session({"par=a.p", "niter=9"})->getch<int>("niter"), 9);
    EXPECT_EQ(session({"niter=9", "par=a.p"})->getch<int>("niter"), 2);
    auto s = session({"par=a.p"});
    for (const auto& [key, value] : {std::pair{"tail", "a"}, {"inner", "b"}, {"last", "a"}})
        EXPECT_EQ(s->getch<std::string>(key), value);
    auto late = session({"par=late.p"});  // read when it is asked for
    write_text("late.p", "x=5\n");
    EXPECT_EQ(late->getch<int>("x"), 5);
    write_text("c.p", "par=a.p\npar=a.p\n");  // twice in a row is no cycle
    EXPECT_EQ(session({"par=c.p"})->getch<std::string>("last"), "a");
    EXPECT_EQ(refusal([&] { session({"par=missing.p"})->getch<int>("x"); }), "file() can't open file missing.p\n");
}

TEST_F(Parameters, AParameterFileThatIncludesItselfIsRefused) {
    write_text("self.p", "x=1 par=self.p\n");
    write_text("one.p", "par=two.p\n");
    write_text("two.p", "par=./one.p\n");
    std::filesystem::create_symlink("self.p", "link.p");
    for (const auto& row : {std::pair{"self.p", "\"self.p\" includes itself"},
                            {"one.p", "\"./one.p\" includes itself"},
                            {"link.p", "includes itself"},
                            {"/dev/zero", "MiB of parameter files"}})
        EXPECT_THAT(refusal([&] { session({std::string("par=") + row.first})->getch<int>("x"); }),
                    HasSubstr(row.second));
}

TEST_F(Parameters, Lists) {
    const std::pair<std::string, std::vector<float>> rows[] = {
        {"3", {3}},
        {"1,2,3", {1, 2, 3}},
        {"2*3.5,4", {3.5, 3.5, 4}},
        {"1x5", {5}},
        {"4,2x-1", {4, -1, -1}},
        {"0*7,1", {1}},
        {"-2*7,1", {1}},
        {"1,,2", {1, 0, 2}},
        {"1,2,", {1, 2}},
        {"1e3,2.5e-1", {1000, 0.25}},
        {"2*,5", {0, 0, 5}},
        {"*3,1", {1}},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(session({"a=" + text})->getch_list<float>("a", 4), expected) << text;
    EXPECT_TRUE(session({"a=0*1"})->getch_list<int>("a", 4).empty());
    EXPECT_TRUE(session({"a=\"\""})->getch_list<int>("a", 4).empty());
    EXPECT_EQ(session({"a=y,no,1,0,Yes"})->getch_list<bool>("a", 5),
              (std::vector<bool>{true, false, true, false, true}));
}

TEST_F(Parameters, AListLongerThanItsRoomNamesTheKey) {
    EXPECT_THAT(refusal([&] { session({"a=1,2,3,4,5"})->getch_list<int>("a", 4); }),
                StartsWith("parameter a=1,2,3,4,5: more values than the 4"));
    EXPECT_THAT(refusal([&] { session({"nh=1,2"})->getch<int>("nh"); }), HasSubstr("nh=1,2"));
    EXPECT_THAT(refusal([&] { session({"a=99999999999999999*1"})->getch_list<double>("a", 1000); }),
                HasSubstr("a=9999"));
    EXPECT_EQ(session({"a=4*1"})->getch_list<int>("a", 4).size(), 4U);
}

TEST_F(Parameters, TextThatIsNoNumberDecodesAsFarAsItGoesAndWarnsOnce) {
    auto s = session({"n=12abc", "m=abc", "big=99999999999", "r=1.5.2", "dso=true", "ok=yes", "z=0*5", "f=1e999"});
    EXPECT_EQ(s->getch<int>("n"), 12);
    EXPECT_EQ(s->getch<int>("n"), 12);
    EXPECT_EQ(s->getch<int>("m"), 0);
    EXPECT_EQ(s->getch<int>("big"), std::numeric_limits<int>::max());
    EXPECT_EQ(s->getch<float>("r"), 1.5f);
    EXPECT_EQ(s->getch<bool>("dso"), false);
    EXPECT_EQ(s->getch<bool>("ok"), true);
    EXPECT_EQ(s->getch<int>("z"), std::nullopt);
    EXPECT_EQ(s->getch<float>("f"), std::numeric_limits<float>::infinity());
    EXPECT_EQ(errors(),
              "prog: warning: parameter n=12abc is not a 32-bit integer\n"
              "prog: warning: parameter m=abc is not a 32-bit integer\n"
              "prog: warning: parameter big=99999999999 is not a 32-bit integer\n"
              "prog: warning: parameter r=1.5.2 is not a number\n"
              "prog: warning: parameter dso=true is not yes or no\n"
              "prog: warning: parameter z=0*5 is not a 32-bit integer\n");
}

TEST_F(Parameters, WhatNobodyReadsIsNamedWithTheNearestKey) {
    using enum qas::KeyType;
    const qas::KeyTable keys({{"",
                               {{"niter", integer, "", "5", "", ""},
                                {"nh", integer, "", "1", "", ""},
                                {"Velout", output, "", "Velout", "", ""},
                                {"extrapolator", text, "", "ffd", "", ""},
                                {"f#", integer, "", "0", "", ""}}}});
    for (const auto& [given, near] : {std::pair("nitter", "niter"),
                                      {"nietr", "niter"},
                                      {"velout", "Velout"},
                                      {"--nh", "nh"},
                                      {"extrap", "extrapolator"},
                                      {"data-path", "datapath"},
                                      {"q", ""},
                                      {"quite_another", ""}})
        EXPECT_EQ(keys.nearest(given), near) << given;
    for (const char* known : {"f1", "Velout.out", "Velout.write_title", "in.write_title", "par", "qas.jobid"})
        EXPECT_TRUE(keys.knows(known)) << known;
    for (const char* unknown : {"f0", "f", "f10", "nh.out", "Velout.in"}) EXPECT_FALSE(keys.knows(unknown)) << unknown;

    files::write_text("more", "nitter=3 nh=4\n# nothing=1\n");
    auto s = session({"zz=1", "niter", "=4", "nh=", "par=more", "title='a b'", "DISK=/d", "Velout.out=$DISK/v",
                      "long\nname=" + std::string(100, 'x')});
    s->declare(keys);
    EXPECT_THAT(s->unread(),
                testing::ElementsAre("zz=1 is not read, there is no such key",
                                     "nitter=3 is not read, there is no such key; did you mean niter?",
                                     "title=a b is not read, there is no such key",
                                     "long?name=" + std::string(50, 'x') + "... is not read, there is no such key",
                                     "\"niter\" is not read: a parameter is name=value; did you mean niter=...?",
                                     "\"=4\" is not read: a parameter is name=value"));
    EXPECT_DEBUG_DEATH(s->exist_file("mmax"), "mmax is looked up and not in the table of keys");
}

TEST_F(Parameters, DecodingByTypeLetter) {
    qas::ParTable table;
    std::int64_t clock = 0;
    qas::Notes notes{err_, {}};
    qas::getpar_scan(table, clock, "a=4294967297 t=1,2\n", qas::Origin::user);
    const auto decode = [&](const char* name, const char* type) {
        return qas::getpar_decode(table, name, type, 9, "parameter", notes);
    };
    EXPECT_EQ(std::get<std::vector<int>>(decode("a", "m")), std::vector<int>{1});  // the low half
    EXPECT_EQ(std::get<std::vector<int>>(decode("t", "d")), (std::vector<int>{1, 2}));
    EXPECT_EQ(std::get<std::vector<int>>(decode("t", "1")), (std::vector<int>{1, 0}));
    EXPECT_EQ(std::get<std::vector<float>>(decode("t", "real")), (std::vector<float>{1, 2}));
    EXPECT_EQ(std::get<std::vector<double>>(decode("t", "g")), (std::vector<double>{1, 2}));
    EXPECT_EQ(std::get<std::string>(decode("t", "s")), "1,2");
    EXPECT_FALSE(qas::found(decode("none", "s")));
    EXPECT_EQ(refusal([&] { decode("a", "q"); }), "getpar() unknown conversion type q\n");
}

TEST_F(Parameters, RequiredValues) {
    EXPECT_EQ(refusal([&] { session()->from_param<int>("niter"); }), "missing parameter value: niter\n");
    EXPECT_EQ(session({"niter="})->from_param<int>("niter", 5), 5);
    auto s = session({"horv0=", "log=x"});
    EXPECT_FALSE(s->exist_file("horv0"));
    EXPECT_TRUE(s->exist_file("log"));
    EXPECT_FALSE(s->exist_file("list"));
    EXPECT_EQ(s->program(), "prog");
}
