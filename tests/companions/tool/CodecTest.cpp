// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sandbox.h"
#include "ToolRun.h"

#include <fstream>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::HasSubstr;

namespace {

class VornnetEncode : public ToolTest {};

class VornnetDecode : public ToolTest {};

/** A file in a directory that every test finds empty. */
std::string writeFile(const std::string& data) {
    const std::string path = pipePath("input");
    std::ofstream(path, std::ios::binary) << data;
    return path;
}

} // namespace

TEST_F(VornnetEncode, WithValues_ShowsTheirBytesBesideThem) {
    const ToolResult result =
        runTool({"encode", "int:1", "short:-2", "bool:true", "string:abc", "ack", "error"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "00 00 00 01              int 1\n"
                             "ff fe                    short -2\n"
                             "00 01                    bool true\n"
                             "00 00 00 03 61 62 63     string \"abc\"\n"
                             "00 01 00 00              ack\n"
                             "00 01 ff ff              error\n");
}

TEST_F(VornnetEncode, WithLongBytes_ContinuesThemOnTheNextLine) {
    EXPECT_EQ(runTool({"encode", "string:abcdef"}).output,
              "00 00 00 06 61 62 63 64  string \"abcdef\"\n65 66\n");
}

TEST_F(VornnetEncode, WithLong_WritesItsLow32BitsFirst) {
    EXPECT_EQ(runTool({"encode", "long:305419896"}).output, "12 34 56 78 00 00 00 00  long 305419896\n");
    EXPECT_EQ(runTool({"encode", "long:-1"}).output, "ff ff ff ff 00 00 00 00  long -1\n");
}

TEST_F(VornnetEncode, WithLine_EndsItWithCarriageReturnAndLineFeed) {
    EXPECT_EQ(runTool({"encode", "line:svc"}).output, "73 76 63 0d 0a           line \"svc\"\n");
}

TEST_F(VornnetEncode, WithJson_PrintsBytesAndValues) {
    const Json object = runTool({"encode", "--json", "int:1", "string:x", "bool:false"}).json();
    EXPECT_EQ(object.at("bytes"), 11);
    EXPECT_EQ(object.at("hex"), "00 00 00 01 00 00 00 01 78 00 00");
    EXPECT_EQ(object.at("values"), Json::parse(R"([{"type":"int","value":1},{"type":"string","value":"x"},
                                                   {"type":"bool","value":false}])"));
}

TEST_F(VornnetEncode, WithRaw_WritesTheBytesThemselves) {
    EXPECT_EQ(runTool({"encode", "--raw", "short:258", "string:\n"}).output,
              std::string("\x01\x02\0\0\0\x01\n", 7));
}

TEST_F(VornnetEncode, WithRawAndJson_EndsWithUsage) {
    EXPECT_EQ(runTool({"encode", "--raw", "--json", "int:1"}).status, 2);
}

class VornnetBadValue : public ToolTest, public testing::WithParamInterface<std::string> {};

TEST_P(VornnetBadValue, EndsWithUsageAndNamesTheValue) {
    const ToolResult result = runTool({"encode", GetParam()});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("vornnet encode: "));
}

INSTANTIATE_TEST_SUITE_P(Values, VornnetBadValue,
                         testing::Values("5", "int", "int:", "int:x", "int:5x", "int:2147483648",
                                         "short:32768", "long:4294967296", "long:-2147483649", "bool:yes",
                                         "float:1", "ack:", "line:a\nb", ""));

TEST_F(VornnetDecode, WithFile_ShowsTheValuesBesideTheirBytes) {
    const std::string path = writeFile(std::string("\0\0\0\x07\xff\xfe\0\0\0\x01x", 11));
    const ToolResult result = runTool({"decode", "--types", "int,short,string", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "00 00 00 07              int 7\n"
                             "ff fe                    short -2\n"
                             "00 00 00 01 78           string \"x\"\n");
}

TEST_F(VornnetDecode, WithWhatEncodeWrites_ShowsTheSameValues) {
    const ToolResult result =
        runShell("\"$TOOL\" encode --raw int:-5 short:-2 long:7 bool:true 'string:a b' line:l ack "
                 "error | \"$TOOL\" decode --types int,short,long,bool,string,line,ack,ack -");
    const ToolResult encoded = runTool(
        {"encode", "int:-5", "short:-2", "long:7", "bool:true", "string:a b", "line:l", "ack", "error"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, encoded.output);
}

TEST_F(VornnetDecode, WithHexViewOfEncode_ShowsTheSameValues) {
    const ToolResult result =
        runShell("\"$TOOL\" encode int:-5 'string:a  b, longer than a line' ack | \"$TOOL\" "
                 "decode --hex --types int,string,ack");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, runTool({"encode", "int:-5", "string:a  b, longer than a line", "ack"}).output);
}

TEST_F(VornnetDecode, WithHexWithoutBlanks_ReadsPairsOfDigits) {
    EXPECT_EQ(runTool({"decode", "--hex", "--types", "short", writeFile("FFfe\n")}).output,
              "ff fe                    short -2\n");
}

TEST_F(VornnetDecode, WithHexThatIsNone_Fails) {
    EXPECT_EQ(runTool({"decode", "--hex", "--types", "short", writeFile("00 0x\n")}).status, 1);
}

TEST_F(VornnetDecode, WhenBytesAreMissing_ShowsWhatIsThereAndIsIncomplete) {
    const ToolResult result =
        runTool({"decode", "--types", "short,int", writeFile(std::string("\0\1\0", 3))});
    EXPECT_EQ(result.status, 6);
    EXPECT_EQ(result.output, "00 01                    short 1\n"
                             "00                       rest\n");
    EXPECT_EQ(result.errors, "vornnet decode: the bytes end within value 2 (int)\n");
}

TEST_F(VornnetDecode, WhenBytesAreLeft_ShowsThemAndIsIncomplete) {
    const ToolResult result = runTool({"decode", "--types", "short", writeFile(std::string("\0\1\2", 3))});
    EXPECT_EQ(result.status, 6);
    EXPECT_THAT(result.output, HasSubstr("02                       rest\n"));
    EXPECT_EQ(result.errors, "vornnet decode: 1 bytes are left\n");
}

TEST_F(VornnetDecode, WithNothing_IsIncomplete) {
    EXPECT_EQ(runTool({"decode", "--types", "short"}).status, 6);
}

TEST_F(VornnetDecode, WithLengthThatCannotBeMeant_IsIncompleteWithoutReadingOn) {
    for (const char* length : {"7fffffff", "ffffffff", "80000000"}) {
        const ToolResult result = runTool({"decode", "--hex", "--types", "string", writeFile(length)});
        EXPECT_EQ(result.status, 6);
        EXPECT_THAT(result.errors, HasSubstr("a string of length"));
    }
}

TEST_F(VornnetDecode, WithTokenThatIsNone_IsIncomplete) {
    const ToolResult result = runTool({"decode", "--hex", "--types", "ack", writeFile("00 02 00 00")});
    EXPECT_EQ(result.status, 6);
    EXPECT_THAT(result.errors, HasSubstr("neither an acknowledgement nor an error"));
}

TEST_F(VornnetDecode, WithBytesHarmfulToATerminal_ShowsThemAsEscapes) {
    EXPECT_THAT(
        runTool({"decode", "--hex", "--types", "string", writeFile("00 00 00 06 1b 5b 22 ff c2 9b")}).output,
        HasSubstr("string \"\\x1b[\\\"\\xff\\xc2\\x9b\"\n"));
}

TEST_F(VornnetDecode, WithUtf8_ShowsItAsText) {
    EXPECT_THAT(runTool({"decode", "--hex", "--types", "string", writeFile("00 00 00 02 c3 a9")}).output,
                HasSubstr("string \"\xc3\xa9\"\n"));
}

TEST_F(VornnetDecode, WithJson_GivesBytesThatAreNoTextAsHex) {
    const Json object =
        runTool({"decode", "--json", "--hex", "--types", "string", writeFile("00 00 00 02 61 ff")}).json();
    EXPECT_EQ(object.at("bytes"), 6);
    EXPECT_EQ(object.at("rest"), "");
    EXPECT_EQ(object.at("values").at(0).at("hex"), "61 ff");
}

TEST_F(VornnetDecode, WithJsonWhenBytesAreMissing_PrintsTheError) {
    const ToolResult result = runTool({"decode", "--json", "--types", "int", writeFile("a")});
    EXPECT_EQ(result.status, 6);
    EXPECT_EQ(result.json().at("rest"), "61");
    EXPECT_EQ(result.json().at("error"), "the bytes end within value 1 (int)");
}

TEST_F(VornnetDecode, WithUnknownType_EndsWithUsage) {
    for (const char* types : {"float", "int,", ",int", "int,,int"})
        EXPECT_EQ(runTool({"decode", "--types", types}).status, 2) << types;
}

TEST_F(VornnetDecode, WithoutTypes_EndsWithUsage) {
    EXPECT_EQ(runTool({"decode"}).status, 2);
}

TEST_F(VornnetDecode, WithFileThatIsNot_Fails) {
    const ToolResult result = runTool({"decode", "--types", "int", "/opt/no-such-file"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("/opt/no-such-file"));
}
