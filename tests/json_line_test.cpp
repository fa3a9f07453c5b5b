// The JSON of the command line: strings written as the system's 8-bit text, and the flat objects
// the sheet process reads, with the reason for every refusal.
#include <gtest/gtest.h>

#include "cli/json_line.h"

namespace {

std::string Refusal(std::string_view line) {
  std::string error;
  EXPECT_FALSE(ParseJsonLine(line, error).has_value()) << line;
  return error;
}

}  // namespace

TEST(JsonLine, ReadsStringsNumbersBooleansAndNull) {
  std::string error;
  const auto m = ParseJsonLine(R"( {"do":"mouse", "x":-3, "y":12, "click":true, "n":null, "t":"a\"b\\c\/d\n"} )", error);
  ASSERT_TRUE(m) << error;
  EXPECT_EQ(*m->String("do"), "mouse");
  EXPECT_EQ(m->Number("x"), -3);
  EXPECT_EQ(m->Number("y"), 12);
  EXPECT_EQ(m->Bool("click"), true);
  EXPECT_EQ(*m->String("t"), "a\"b\\c/d\n");
  EXPECT_EQ(m->String("n"), nullptr);
  EXPECT_FALSE(m->Number("do"));
  EXPECT_FALSE(m->Bool("missing"));
  EXPECT_TRUE(ParseJsonLine("{}", error));
}

TEST(JsonLine, TextBecomesLatin1AndOtherCharactersAQuestionMark) {
  std::string error;
  const auto m = ParseJsonLine("{\"a\":\"caf\xc3\xa9\",\"b\":\"\\u00e9\",\"c\":\"\xe2\x82\xac\",\"d\":\"\\ud83d\\ude00\"}", error);
  ASSERT_TRUE(m) << error;
  EXPECT_EQ(*m->String("a"), "caf\xe9");
  EXPECT_EQ(*m->String("b"), "\xe9");
  EXPECT_EQ(*m->String("c"), "?");
  EXPECT_EQ(*m->String("d"), "?");
}

TEST(JsonLine, EveryByteWrittenReadsBackTheSame) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += char(c);
  EXPECT_EQ(JsonString("a\"\\\r\n\t\x01\x7f\xe9"), "\"a\\\"\\\\\\r\\n\\t\\u0001\\u007f\\u00e9\"");
  std::string error;
  const auto m = ParseJsonLine("{\"s\":" + JsonString(all) + "}", error);
  ASSERT_TRUE(m) << error;
  EXPECT_EQ(*m->String("s"), all);
}

TEST(JsonLine, RefusesWhatIsNotAFlatObjectAndSaysWhere) {
  EXPECT_EQ(Refusal(""), "expected '{' at byte 1");
  EXPECT_EQ(Refusal("[1]"), "expected '{' at byte 1");
  EXPECT_EQ(Refusal("{\"a\":1"), "expected ',' or '}' at byte 7");
  EXPECT_EQ(Refusal("{\"a\" 1}"), "expected ':' at byte 6");
  EXPECT_EQ(Refusal("{\"a\":{}}"), "nested objects and arrays are not taken at byte 6");
  EXPECT_EQ(Refusal("{\"a\":[1]}"), "nested objects and arrays are not taken at byte 6");
  EXPECT_EQ(Refusal("{\"a\":1,\"a\":2}"), "a key given twice at byte 13");
  EXPECT_EQ(Refusal("{\"a\":1} x"), "text after the object at byte 9");
  EXPECT_EQ(Refusal("{\"a\":1.5}"), "a number that is not whole at byte 7");
  EXPECT_EQ(Refusal("{\"a\":012}"), "a number with a leading zero at byte 6");
  EXPECT_EQ(Refusal("{\"a\":99999999999999999999}"), "a number too large at byte 22");
  EXPECT_EQ(Refusal("{\"a\":tru}"), "expected a value at byte 6");
  EXPECT_EQ(Refusal("{\"a\":\"x"), "a string without its end at byte 8");
  EXPECT_EQ(Refusal("{\"a\":\"\t\"}"), "a control character in a string at byte 7");
  EXPECT_EQ(Refusal("{\"a\":\"\\q\"}"), "a bad escape in a string at byte 9");
  EXPECT_EQ(Refusal("{\"a\":\"\\u12\"}"), "a bad \\u escape at byte 11");
  EXPECT_EQ(Refusal("{\"a\":\"\\u0000\"}"), "a NUL character in a string at byte 13");
  EXPECT_EQ(Refusal("{\"a\":\"\\udc00\"}"), "a lone surrogate in a \\u escape at byte 13");
  EXPECT_EQ(Refusal("{\"a\":\"\xc3\"}"), "a string that is not UTF-8 at byte 7");
  EXPECT_EQ(Refusal("{\"a\":\"\xc0\x80\"}"), "a string that is not UTF-8 at byte 7");
}
