#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "src/tools/qas/npy.h"
#include "tests/refusal.h"

using testing::HasSubstr;

namespace {

using namespace std::string_literals;

/// "c16 swapped fortran 2 3 : 96 bytes" and the like.
std::string described(const qastool::NpyHeader& header) {
    std::string words = header.type + std::to_string(header.size);
    if (header.swapped) words += " swapped";
    if (header.fortran_order) words += " fortran";
    for (const std::int64_t n : header.shape) words += " " + std::to_string(n);
    return words + " : " + std::to_string(header.bytes()) + " bytes";
}

std::string read_bytes(const std::string& bytes) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    std::fwrite(bytes.data(), 1, bytes.size(), file.get());
    std::rewind(file.get());
    const qastool::NpyHeader header = qastool::read_npy_header(file.get(), "a.npy");
    EXPECT_EQ(std::fgetc(file.get()), 'S') << "the stream does not stand at the first sample";
    return described(header);
}

const std::string text = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }";

}  // namespace

TEST(NpyHeader, TakesWhatNumpyWrites) {
    for (const auto& [dictionary, expected] :
         {std::pair{text + "      \n", "f4 2 3 : 24 bytes"},
          {"{\"shape\":(7L,),\"fortran_order\":True,\"descr\":\">c16\"}", "c16 swapped fortran 7 : 112 bytes"},
          {"{'descr':'|u1','fortran_order':False,'shape':()}", "u1 : 1 bytes"}})
        EXPECT_EQ(described(qastool::parse_npy_dictionary(dictionary, "a.npy")), expected);
}

TEST(NpyHeader, OfEveryVersionEndsWhereTheSamplesBegin) {
    const std::string length = {static_cast<char>(text.size()), '\0'};
    for (const std::string& bytes :
         {"\x93NUMPY\1\0"s + length, "\x93NUMPY\2\0"s + length + "\0\0"s, "\x93NUMPY\3\0"s + length + "\0\0"s})
        EXPECT_EQ(read_bytes(bytes + text + "S"), "f4 2 3 : 24 bytes");
}

TEST(NpyHeader, RefusesHostileText) {
    const struct {
        const char* text;
        const char* part;
    } cases[] = {
        {"", "a dictionary is missing"},
        {"{", "a quoted text is missing"},
        {"{'descr", "a quote is not closed"},
        {"{'descr' '<f4'}", "a colon is missing"},
        {"{'descr': '<f4'}", "descr, fortran_order or shape is missing"},
        {"{'descr': '<f4' 'shape': (1,)}", "a comma is missing"},
        {"{'descr': '<f4', 'descr': '<f4'}", "an unknown or repeated key"},
        {"{'descr': '<f4', 'fortran_order': Maybe, 'shape': (2,)}", "True or False is missing"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': 2}", "a tuple is missing"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (2 3)}", "a comma is missing"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (2,", "an integer is missing"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (99999999999999999999,)}", "an integer is missing"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (2,)} x", "more text follows"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (-2,)}", "an axis of -2 samples"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (3, 0)}", "an axis of 0 samples"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (4611686018427387904, 4)}", "larger than a file can be"},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (1,1,1,1,1,1,1,1,1,1)}", "has 10 axes"},
        {"{'descr': '<i8', 'fortran_order': False, 'shape': (2,)}", "dtype '<i8' is not taken"},
        {"{'descr': '|f4', 'fortran_order': False, 'shape': (2,)}", "dtype '|f4' is not taken"},
        {"{'descr': '|O', 'fortran_order': False, 'shape': (2,)}", "dtype '|O' is not taken"},
        {"{'descr': '', 'fortran_order': False, 'shape': (2,)}", "dtype '' is not taken"},
        {"{'descr': [('x', '<f4')], 'fortran_order': False, 'shape': (2,)}", "arrays of records"},
    };
    for (const auto& c : cases)
        EXPECT_THAT(refusal([&] { qastool::parse_npy_dictionary(c.text, "a.npy"); }), HasSubstr(c.part)) << c.text;
}

TEST(NpyHeader, RefusesHostileBytes) {
    const struct {
        std::string bytes;
        const char* part;
    } cases[] = {
        {"", "not a .npy file"},
        {"\x93NUMPY\1"s, "not a .npy file"},
        {"\x93NUMPX\1\0\x10\0"s + text, "not a .npy file"},
        {"\x93NUMPY\4\0\x10\0"s + text, "version 4.0"},
        {"\x93NUMPY\0\0\x10\0"s + text, "version 0.0"},
        {"\x93NUMPY\1\0\x10"s, "cut short"},
        {"\x93NUMPY\1\0\xff\0"s + text, "cut short"},
        {"\x93NUMPY\2\0\xff\xff\xff\xff"s + text, "of 4294967295 bytes is not taken"},
        {"\x93NUMPY\1\0\0\0"s, "a dictionary is missing"},
    };
    for (const auto& c : cases) EXPECT_THAT(refusal([&] { read_bytes(c.bytes); }), HasSubstr(c.part)) << c.part;
}
