// SPDX-License-Identifier: Apache-2.0
// Names as the tool writes them: JSON that a strict reader takes back to the same bytes (or to
// the exact bytes in hex when they are not UTF-8), terminal text that cannot act on the terminal
// and can be read back, and widths that line up a table. The reader itself is held to the JSON
// grammar here, since the tool's tests rely on it to judge the tool's output.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "json_reader.h"
#include "tools/tavikm/text.h"

namespace tavikm_test {
namespace {

using tavikm_tool::DisplayWidth;
using tavikm_tool::FitToWidth;
using tavikm_tool::JsonString;
using tavikm_tool::JsonTextMember;
using tavikm_tool::PadToWidth;
using tavikm_tool::TerminalText;
using tavikm_tool::ValidUtf8;

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// What a reader of the tool's terminal output recovers: \\, \" and \xNN undone.
std::string Unescape(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
    } else if (text[i + 1] == 'x') {
      bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      bytes += text[++i];
    }
  }
  return bytes;
}

// Byte strings mixing ASCII, every control byte, UTF-8 of each length and stray bytes.
std::vector<std::string> RandomNames(int count) {
  static const std::vector<std::string> kPieces = {"a",
                                                   "Z",
                                                   " ",
                                                   "\"",
                                                   "\\",
                                                   "/",
                                                   "\x1b[2J",
                                                   "\n",
                                                   "\r",
                                                   "\t",
                                                   "\x7f",
                                                   "\xc2\x85",
                                                   "\xc2\x9b",
                                                   "é",
                                                   "e\xcc\x81",
                                                   "東",
                                                   "😀",
                                                   "\xe2\x80\xae",
                                                   "\xe2\x80\xa8",
                                                   "\xef\xbb\xbf",
                                                   "\xff",
                                                   "\xc0\xaf",
                                                   "\xed\xa0\x80",
                                                   "\xf4\x90\x80\x80",
                                                   "\xe6\x9d",
                                                   "\x80",
                                                   std::string(1, '\0')};
  std::mt19937 random(2024);
  std::vector<std::string> names;
  for (int n = 0; n < count; ++n) {
    std::string name;
    for (size_t k = random() % 8; k > 0; --k) name += kPieces[random() % kPieces.size()];
    for (size_t k = random() % 3; k > 0; --k) name += static_cast<char>(random() % 256);
    names.push_back(name);
  }
  return names;
}

// Whether `text` holds a character a terminal acts on: C0, DEL, C1 or a bidirectional control.
bool HoldsControl(const std::string& text) {
  const std::vector<std::string> kAgents = {"\x7f",         "\xc2\x80",     "\xc2\x85",
                                            "\xc2\x9b",     "\xe2\x80\xae", "\xe2\x81\xa6",
                                            "\xe2\x80\xa8", "\xd8\x9c"};
  for (unsigned char c : text) {
    if (c < 0x20) return true;
  }
  for (const std::string& agent : kAgents) {
    if (text.find(agent) != std::string::npos) return true;
  }
  return false;
}

TEST(ToolTextTest, JsonCarriesEveryNameBackExactly) {
  const std::vector<std::string> fixed = {"",
                                          "clé",
                                          "東京",
                                          "😀 emoji",
                                          "q\"b\\s/",
                                          std::string("nul\0in", 6),
                                          "\x01\x1f\x7f",
                                          "\xc2\x85\xe2\x80\xae"};
  std::vector<std::string> names = RandomNames(1000);
  names.insert(names.end(), fixed.begin(), fixed.end());
  int invalid = 0;
  for (const std::string& name : names) {
    SCOPED_TRACE(testing::PrintToString(name));
    std::string literal = JsonString(name);
    EXPECT_FALSE(HoldsControl(literal));
    Json json = JsonParser("{" + JsonTextMember("n", name) + "}").Parse();
    if (ValidUtf8(name)) {
      EXPECT_EQ(json["n"].string, name);
      EXPECT_EQ(json.object.count("n_hex"), 0u);
    } else {
      ++invalid;
      EXPECT_EQ(FromHex(json["n_hex"].string), name);
      EXPECT_TRUE(ValidUtf8(json["n"].string));
      EXPECT_NE(json["n"].string.find("\xef\xbf\xbd"), std::string::npos) << "no U+FFFD";
    }
  }
  EXPECT_GT(invalid, 50);
  EXPECT_EQ(JsonString("clé"), "\"clé\"");
  EXPECT_EQ(JsonString("a\x1b\n\xff"), "\"a\\u001b\\n\\ufffd\"");
}

TEST(ToolTextTest, Utf8ValidityFollowsTheStandard) {
  for (const char* good : {"", "abc", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                           "\xee\x80\x80", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(ValidUtf8(good)) << testing::PrintToString(std::string(good));
  }
  for (const char* bad :
       {"\x80", "\xc1\xbf", "\xc2", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xe2\x82", "a\xc2z"}) {
    EXPECT_FALSE(ValidUtf8(bad)) << testing::PrintToString(std::string(bad));
  }
}

TEST(ToolTextTest, TerminalTextCannotActOnTheTerminalAndReadsBack) {
  for (const std::string& name : RandomNames(1000)) {
    SCOPED_TRACE(testing::PrintToString(name));
    for (bool quoted : {false, true}) {
      std::string shown = TerminalText(name, quoted);
      EXPECT_TRUE(ValidUtf8(shown));
      EXPECT_FALSE(HoldsControl(shown));
      EXPECT_EQ(Unescape(shown), name);
      if (quoted) {
        for (size_t i = shown.find('"'); i != std::string::npos; i = shown.find('"', i + 1)) {
          EXPECT_EQ(shown[i - 1], '\\') << "an unescaped quote would end the quoted name";
        }
      }
    }
  }
  EXPECT_EQ(TerminalText("row\nforged"), "row\\x0aforged");
  EXPECT_EQ(TerminalText("\x1b[31mred"), "\\x1b[31mred");
  EXPECT_EQ(TerminalText("clé 東京"), "clé 東京");
  EXPECT_EQ(TerminalText("a\\x41"), "a\\\\x41");
  EXPECT_EQ(TerminalText("say \"hi\"", true), "say \\\"hi\\\"");
  EXPECT_EQ(TerminalText("\xe2\x80\xae"
                         "abc"),
            "\\xe2\\x80\\xae"
            "abc");
}

TEST(ToolTextTest, WidthsCountTerminalColumns) {
  EXPECT_EQ(DisplayWidth("userdata"), 8u);
  EXPECT_EQ(DisplayWidth("clé"), 3u);
  EXPECT_EQ(DisplayWidth("cle\xcc\x81"), 3u);  // e and a combining acute accent
  EXPECT_EQ(DisplayWidth("東京"), 4u);
  EXPECT_EQ(DisplayWidth("한국어"), 6u);
  EXPECT_EQ(DisplayWidth("😀!"), 3u);
  EXPECT_EQ(DisplayWidth("Ωмега"), 5u);
  EXPECT_EQ(PadToWidth("東京", 6), "東京  ");
  EXPECT_EQ(PadToWidth("longer than", 4), "longer than");

  EXPECT_EQ(FitToWidth("fits", 4), "fits");
  EXPECT_EQ(FitToWidth("does not fit", 8), "does ...");
  EXPECT_EQ(FitToWidth("東京東京", 6), "東...");  // a wide character is never cut in half
  EXPECT_EQ(FitToWidth("abc", 2), "..");
  for (const std::string& name : RandomNames(300)) {
    std::string shown = TerminalText(name);
    for (size_t width = 0; width < 24; ++width) {
      std::string fitted = FitToWidth(shown, width);
      EXPECT_LE(DisplayWidth(fitted), width) << shown;
      if (DisplayWidth(shown) <= width) {
        EXPECT_EQ(fitted, shown);
      }
    }
  }
}

TEST(ToolTextTest, TheJsonReaderIsStrict) {
  struct Good {
    const char* text;
    std::string string;
  };
  const std::vector<Good> good = {
      {R"("\u00e9\u6771")", "é東"},
      {R"("\ud83d\ude00")", "😀"},
      {R"("\uD83D\uDE00")", "😀"},
      {R"("\u0000")", std::string(1, '\0')},
      {R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"},
      {"\"clé\"", "clé"},
  };
  for (const Good& g : good) {
    EXPECT_EQ(JsonParser(g.text).Parse().string, g.string) << g.text;
  }
  EXPECT_EQ(JsonParser("[-0, 1.5e3, 2E-2, 0.25]").Parse().array[1].number, 1500);
  EXPECT_EQ(JsonParser(" {\"a\": [], \"b\": {}} \n").Parse()["a"].array.size(), 0u);

  for (const char* bad : {"\"raw\ncontrol\"",
                          "\"\x1f\"",
                          "\"\\u12\"",
                          "\"\\u12g4\"",
                          "\"\\ud800\"",
                          "\"\\ud800\\u0041\"",
                          "\"\\udc00\"",
                          "\"\\ud800x\"",
                          "\"\\x41\"",
                          "\"\xff\"",
                          "\"\xc0\xaf\"",
                          "\"\xed\xa0\x80\"",
                          "\"\xe6\x9d\"",
                          "\"unterminated",
                          "01",
                          "+1",
                          "1.",
                          ".5",
                          "1e",
                          "0x10",
                          "nan",
                          "Infinity",
                          "-",
                          "[1,]",
                          "{\"a\":1,}",
                          "[1 2]",
                          "{\"a\":1,\"a\":2}",
                          "{'a':1}",
                          "tru",
                          "nul",
                          "[] []",
                          "",
                          "{\"a\"}"}) {
    EXPECT_THROW(JsonParser(bad).Parse(), std::runtime_error) << bad;
  }
}

}  // namespace
}  // namespace tavikm_test
