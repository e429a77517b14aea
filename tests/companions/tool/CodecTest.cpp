// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sandbox.h"
#include "ToolRun.h"

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::_;
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
    EXPECT_THAT(runTool({"encode", "int:1", "short:-2", "bool:true", "string:abc", "ack", "error"}),
                ended(0, "00 00 00 01              int 1\n"
                         "ff fe                    short -2\n"
                         "00 01                    bool true\n"
                         "00 00 00 03 61 62 63     string \"abc\"\n"
                         "00 01 00 00              ack\n"
                         "00 01 ff ff              error\n"));
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

TEST_F(VornnetDecode, WithFile_ShowsTheValuesBesideTheirBytes) {
    const std::string path = writeFile(std::string("\0\0\0\x07\xff\xfe\0\0\0\x01x", 11));
    EXPECT_THAT(runTool({"decode", "--types", "int,short,string", path}),
                ended(0, "00 00 00 07              int 7\n"
                         "ff fe                    short -2\n"
                         "00 00 00 01 78           string \"x\"\n"));
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
    EXPECT_THAT(runShell("\"$TOOL\" encode int:-5 'string:a  b, longer than a line' ack | \"$TOOL\" "
                         "decode --hex --types int,string,ack"),
                ended(0, runTool({"encode", "int:-5", "string:a  b, longer than a line", "ack"}).output));
}

TEST_F(VornnetDecode, WithHexWithoutBlanks_ReadsPairsOfDigits) {
    EXPECT_EQ(runTool({"decode", "--hex", "--types", "short", writeFile("FFfe\n")}).output,
              "ff fe                    short -2\n");
}

TEST_F(VornnetDecode, WithHexThatIsNone_Fails) {
    EXPECT_EQ(runTool({"decode", "--hex", "--types", "short", writeFile("00 0x\n")}).status, 1);
}

TEST_F(VornnetDecode, WhenBytesAreMissing_ShowsWhatIsThereAndIsIncomplete) {
    EXPECT_THAT(runTool({"decode", "--types", "short,int", writeFile(std::string("\0\1\0", 3))}),
                ended(6,
                      "00 01                    short 1\n"
                      "00                       rest\n",
                      "vornnet decode: the bytes end within value 2 (int)\n"));
}

TEST_F(VornnetDecode, WhenBytesAreLeft_ShowsThemAndIsIncomplete) {
    EXPECT_THAT(runTool({"decode", "--types", "short", writeFile(std::string("\0\1\2", 3))}),
                ended(6, HasSubstr("02                       rest\n"), "vornnet decode: 1 bytes are left\n"));
}

TEST_F(VornnetDecode, WithNothing_IsIncomplete) {
    EXPECT_EQ(runTool({"decode", "--types", "short"}).status, 6);
}

TEST_F(VornnetDecode, WithLengthThatCannotBeMeant_IsIncompleteWithoutReadingOn) {
    for (const char* length : {"7fffffff", "ffffffff", "80000000"}) {
        EXPECT_THAT(runTool({"decode", "--hex", "--types", "string", writeFile(length)}),
                    ended(6, _, HasSubstr("a string of length")));
    }
}

TEST_F(VornnetDecode, WithTokenThatIsNone_IsIncomplete) {
    EXPECT_THAT(runTool({"decode", "--hex", "--types", "ack", writeFile("00 02 00 00")}),
                ended(6, _, HasSubstr("neither an acknowledgement nor an error")));
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

TEST_F(VornnetDecode, WithFileThatIsNot_Fails) {
    EXPECT_THAT(runTool({"decode", "--types", "int", "/opt/no-such-file"}),
                ended(1, _, HasSubstr("/opt/no-such-file")));
}
