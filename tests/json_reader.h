// SPDX-License-Identifier: Apache-2.0
// A strict JSON reader (RFC 8259) for the known-answer files under tests/vectors and the tool's
// --json output: anything a conforming writer would not produce is refused, so a test that reads
// the tool's output also checks that it is JSON. Strings must be well-formed UTF-8 without raw
// control characters; \u escapes are decoded to UTF-8, a surrogate pair to one character, and a
// lone surrogate is refused (it has no UTF-8 form). Numbers follow the grammar exactly; a
// repeated member name is refused. Throws on bad input.
#ifndef TAVIKM_TESTS_JSON_READER_H_
#define TAVIKM_TESTS_JSON_READER_H_

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavikm_test {

struct Json {
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };
  Type type = Type::kNull;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<Json> array;
  std::map<std::string, Json> object;

  // Member access that throws when the member is missing, so a changed file fails loudly.
  const Json& operator[](const std::string& key) const {
    auto it = object.find(key);
    if (type != Type::kObject || it == object.end()) throw std::runtime_error("no member " + key);
    return it->second;
  }
  int Int() const { return static_cast<int>(number); }
};

class JsonParser {
 public:
  explicit JsonParser(std::string text) : text_(std::move(text)) {}

  Json Parse() {
    Json value = Value();
    if (Peek() != 0) Fail("trailing data");
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(pos_));
  }
  // The next character that is not white space, left unread; 0 at the end.
  char Peek() {
    while (pos_ < text_.size() && memchr(" \n\r\t", text_[pos_], 4)) ++pos_;
    return pos_ < text_.size() ? text_[pos_] : 0;
  }
  char Next() {
    if (pos_ >= text_.size()) Fail("unexpected end");
    return text_[pos_++];
  }
  void Expect(char c) {
    if (Peek() != c) Fail(std::string("expected ") + c);
    ++pos_;
  }

  Json Value() {
    Json v;
    char c = Peek();
    if (c == '{' || c == '[') {
      ++pos_;
      v.type = c == '{' ? Json::Type::kObject : Json::Type::kArray;
      const char close = c == '{' ? '}' : ']';
      if (Peek() == close) {
        ++pos_;
        return v;
      }
      for (;;) {
        if (c == '[') {
          v.array.push_back(Value());
        } else {
          Expect('"');
          std::string key = StringBody();
          Expect(':');
          if (!v.object.emplace(key, Value()).second) Fail("repeated member " + key);
        }
        if (Peek() != ',') break;
        ++pos_;
      }
      Expect(close);
    } else if (c == '"') {
      ++pos_;
      v.type = Json::Type::kString;
      v.string = StringBody();
    } else if (Word("true") || Word("false")) {
      v.type = Json::Type::kBool;
      v.boolean = c == 't';
    } else if (!Word("null")) {
      v.type = Json::Type::kNumber;
      v.number = Number();
    }
    return v;
  }

  bool Word(const std::string& word) {
    if (text_.compare(pos_, word.size(), word) != 0) return false;
    pos_ += word.size();
    return true;
  }

  size_t Digits() {
    size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
    return pos_ - start;
  }

  // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
  double Number() {
    const size_t start = pos_;
    if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
    if (pos_ < text_.size() && text_[pos_] == '0') {
      ++pos_;
    } else if (Digits() == 0) {
      Fail("bad value");
    }
    if (pos_ < text_.size() && text_[pos_] == '.') {
      ++pos_;
      if (Digits() == 0) Fail("bad fraction");
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      ++pos_;
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
      if (Digits() == 0) Fail("bad exponent");
    }
    return std::stod(text_.substr(start, pos_ - start));
  }

  unsigned Hex4() {
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      char c = Next();
      int digit = c >= '0' && c <= '9'   ? c - '0'
                  : c >= 'a' && c <= 'f' ? c - 'a' + 10
                  : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                         : -1;
      if (digit < 0) Fail("bad \\u escape");
      value = value << 4 | static_cast<unsigned>(digit);
    }
    return value;
  }

  static void AppendUtf8(std::string* out, unsigned cp) {
    if (cp < 0x80) {
      *out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      *out += static_cast<char>(0xc0 | cp >> 6);
      *out += static_cast<char>(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
      *out += static_cast<char>(0xe0 | cp >> 12);
      *out += static_cast<char>(0x80 | (cp >> 6 & 0x3f));
      *out += static_cast<char>(0x80 | (cp & 0x3f));
    } else {
      *out += static_cast<char>(0xf0 | cp >> 18);
      *out += static_cast<char>(0x80 | (cp >> 12 & 0x3f));
      *out += static_cast<char>(0x80 | (cp >> 6 & 0x3f));
      *out += static_cast<char>(0x80 | (cp & 0x3f));
    }
  }

  // One well-formed UTF-8 sequence starting with `lead` (already read), copied to `out`.
  void Utf8Sequence(unsigned char lead, std::string* out) {
    size_t length;
    unsigned cp, least;
    if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2, cp = lead & 0x1fu, least = 0x80;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3, cp = lead & 0x0fu, least = 0x800;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4, cp = lead & 0x07u, least = 0x10000;
    } else {
      Fail("not UTF-8");
    }
    *out += static_cast<char>(lead);
    for (size_t i = 1; i < length; ++i) {
      unsigned char c = static_cast<unsigned char>(Next());
      if ((c & 0xc0) != 0x80) Fail("not UTF-8");
      cp = cp << 6 | (c & 0x3fu);
      *out += static_cast<char>(c);
    }
    if (cp < least || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) Fail("not UTF-8");
  }

  // After the opening quote; consumes the closing one.
  std::string StringBody() {
    static const std::string kEscaped = "\"\\/bfnrt", kMeant = "\"\\/\b\f\n\r\t";
    std::string out;
    for (char c = Next(); c != '"'; c = Next()) {
      unsigned char byte = static_cast<unsigned char>(c);
      if (byte < 0x20) Fail("raw control character in a string");
      if (byte >= 0x80) {
        Utf8Sequence(byte, &out);
        continue;
      }
      if (c != '\\') {
        out += c;
        continue;
      }
      char e = Next();
      if (e == 'u') {
        unsigned cp = Hex4();
        if (cp >= 0xdc00 && cp <= 0xdfff) Fail("lone low surrogate");
        if (cp >= 0xd800 && cp <= 0xdbff) {
          if (Next() != '\\' || Next() != 'u') Fail("lone high surrogate");
          unsigned low = Hex4();
          if (low < 0xdc00 || low > 0xdfff) Fail("lone high surrogate");
          cp = 0x10000 + ((cp - 0xd800) << 10) + (low - 0xdc00);
        }
        AppendUtf8(&out, cp);
        continue;
      }
      size_t escape = kEscaped.find(e);
      if (escape == std::string::npos) Fail("bad escape");
      out += kMeant[escape];
    }
    return out;
  }

  std::string text_;
  size_t pos_ = 0;
};

inline Json ReadJsonFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return JsonParser(std::string(std::istreambuf_iterator<char>(in), {})).Parse();
}

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_JSON_READER_H_
