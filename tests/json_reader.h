// A minimal JSON reader for the known-answer files under tests/vectors: objects, arrays,
// strings (escapes decoded, \u as UTF-8), numbers, true, false and null. Throws on bad input.
#ifndef TAVIKM_TESTS_JSON_READER_H_
#define TAVIKM_TESTS_JSON_READER_H_

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
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
  bool Has(const std::string& key) const { return object.count(key) != 0; }
  int Int() const { return static_cast<int>(number); }
};

class JsonParser {
 public:
  explicit JsonParser(std::string text) : text_(std::move(text)) {}

  Json Parse() {
    Json value = Value();
    SkipSpace();
    if (pos_ != text_.size()) Fail("trailing data");
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(pos_));
  }
  void SkipSpace() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\n' ||
                                   text_[pos_] == '\r' || text_[pos_] == '\t')) {
      ++pos_;
    }
  }
  char Next() {
    if (pos_ >= text_.size()) Fail("unexpected end");
    return text_[pos_++];
  }
  void Expect(const char* word) {
    for (const char* c = word; *c; ++c) {
      if (Next() != *c) Fail(std::string("expected ") + word);
    }
  }

  Json Value() {
    SkipSpace();
    Json v;
    if (pos_ >= text_.size()) Fail("unexpected end");
    char c = text_[pos_];
    if (c == '{') {
      v.type = Json::Type::kObject;
      ++pos_;
      SkipSpace();
      if (text_[pos_] == '}') return ++pos_, v;
      for (;;) {
        SkipSpace();
        if (Next() != '"') Fail("expected a member name");
        std::string key = StringBody();
        SkipSpace();
        if (Next() != ':') Fail("expected ':'");
        v.object[key] = Value();
        SkipSpace();
        char sep = Next();
        if (sep == '}') return v;
        if (sep != ',') Fail("expected ',' or '}'");
      }
    }
    if (c == '[') {
      v.type = Json::Type::kArray;
      ++pos_;
      SkipSpace();
      if (text_[pos_] == ']') return ++pos_, v;
      for (;;) {
        v.array.push_back(Value());
        SkipSpace();
        char sep = Next();
        if (sep == ']') return v;
        if (sep != ',') Fail("expected ',' or ']'");
      }
    }
    if (c == '"') {
      ++pos_;
      v.type = Json::Type::kString;
      v.string = StringBody();
      return v;
    }
    if (c == 't' || c == 'f') {
      v.type = Json::Type::kBool;
      v.boolean = c == 't';
      Expect(v.boolean ? "true" : "false");
      return v;
    }
    if (c == 'n') {
      Expect("null");
      return v;
    }
    size_t used = 0;
    try {
      v.number = std::stod(text_.substr(pos_, 64), &used);
    } catch (const std::exception&) {
      Fail("bad value");
    }
    v.type = Json::Type::kNumber;
    pos_ += used;
    return v;
  }

  // After the opening quote; consumes the closing one.
  std::string StringBody() {
    std::string out;
    for (;;) {
      char c = Next();
      if (c == '"') return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      char e = Next();
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          if (pos_ + 4 > text_.size()) Fail("short \\u escape");
          unsigned cp = static_cast<unsigned>(std::stoul(text_.substr(pos_, 4), nullptr, 16));
          pos_ += 4;
          // Surrogate pairs are not joined; the vector files only use them in comments.
          if (cp < 0x80) {
            out += static_cast<char>(cp);
          } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
          } else {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
          }
          break;
        }
        default:
          Fail("bad escape");
      }
    }
  }

  std::string text_;
  size_t pos_ = 0;
};

inline Json ReadJsonFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return JsonParser(buffer.str()).Parse();
}

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_JSON_READER_H_
