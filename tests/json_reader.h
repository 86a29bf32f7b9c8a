// SPDX-License-Identifier: Apache-2.0
// A minimal JSON reader for the known-answer files under tests/vectors and the tool's --json
// output: objects, arrays, strings (the one-character escapes; no \u, which neither uses),
// numbers, true, false and null. Throws on bad input.
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
      for (bool more = Peek() != close; more;) {
        if (c == '[') {
          v.array.push_back(Value());
        } else {
          Expect('"');
          std::string key = StringBody();
          Expect(':');
          v.object[key] = Value();
        }
        more = Peek() == ',';
        pos_ += more;
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
      size_t used = 0;
      try {
        v.number = std::stod(text_.substr(pos_, 64), &used);
      } catch (const std::exception&) {
        Fail("bad value");
      }
      v.type = Json::Type::kNumber;
      pos_ += used;
    }
    return v;
  }

  bool Word(const std::string& word) {
    if (text_.compare(pos_, word.size(), word) != 0) return false;
    pos_ += word.size();
    return true;
  }

  // After the opening quote; consumes the closing one.
  std::string StringBody() {
    static const std::string kEscaped = "\"\\/bfnrt", kMeant = "\"\\/\b\f\n\r\t";
    std::string out;
    for (char c = Next(); c != '"'; c = Next()) {
      size_t escape = c == '\\' ? kEscaped.find(Next()) : 0;
      if (escape == std::string::npos) Fail("bad escape");
      out += c == '\\' ? kMeant[escape] : c;
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
