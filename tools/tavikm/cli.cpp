// SPDX-License-Identifier: Apache-2.0
// Option parsing, number parsing and the hex and fingerprint texts of the tavikm tool.
#include "cli.h"

#include <stdio.h>

#include "tavikm.h"

namespace tavikm_tool {
namespace {

std::string g_current_usage;

bool IsGlobalOption(const std::string& name) {
  return name == "-v" || name == "--verbose" || name == "--device-dir" || name == "--prop";
}

}  // namespace

ArgParser::ArgParser(std::string usage, std::string help)
    : usage_(std::move(usage)), help_(std::move(help)) {}

void ArgParser::Flag(const std::string& name, bool* out) {
  options_.push_back({name, false, [out](const std::string&) { *out = true; }});
}

void ArgParser::Value(const std::string& name, std::optional<std::string>* out) {
  options_.push_back({name, true, [out](const std::string& v) { *out = v; }});
}

void ArgParser::Repeated(const std::string& name, std::vector<std::string>* out) {
  options_.push_back({name, true, [out](const std::string& v) { out->push_back(v); }});
}

const ArgParser::Option* ArgParser::Find(const std::string& name) const {
  for (const Option& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

bool ArgParser::Parse(const std::vector<std::string>& args, size_t min_positional,
                      size_t max_positional) {
  SetCurrentUsage(usage_);
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_ended || arg == "-" || arg.size() < 2 || arg[0] != '-') {
      positional_.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      printf("%s\n%s", usage_.c_str(), help_.c_str());
      return false;
    }
    std::string name = arg;
    std::optional<std::string> inline_value;
    if (size_t eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
      name = arg.substr(0, eq);
      inline_value = arg.substr(eq + 1);
    }
    const Option* option = Find(name);
    if (!option && IsGlobalOption(name)) {
      throw UsageError(name + " is a global option: put it before the command");
    }
    if (!option) throw UsageError("unknown option " + name);
    if (!option->takes_value) {
      if (inline_value) throw UsageError(name + " takes no value");
      option->set("");
    } else if (inline_value) {
      option->set(*inline_value);
    } else if (i + 1 < args.size()) {
      option->set(args[++i]);
    } else {
      throw UsageError(name + " needs a value");
    }
  }
  if (positional_.size() < min_positional) throw UsageError("missing argument");
  if (positional_.size() > max_positional) {
    throw UsageError("unexpected argument " + positional_[max_positional]);
  }
  return true;
}

void SetCurrentUsage(const std::string& usage) { g_current_usage = usage; }

const std::string& CurrentUsage() { return g_current_usage; }

uint64_t ParseUnsigned(const std::string& text, const std::string& what) {
  if (text.empty()) throw UsageError(what + " must be a decimal number");
  uint64_t value = 0;
  bool overflow = false;
  for (char c : text) {
    if (c < '0' || c > '9') throw UsageError(what + " must be a decimal number");
    unsigned digit = static_cast<unsigned>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) overflow = true;
    if (!overflow) value = value * 10 + digit;
  }
  if (overflow) throw UsageError(what + " is too large");
  return value;
}

std::string Hex(const uint8_t* data, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 15];
  }
  return text;
}

std::string Fingerprint(const uint8_t* data, size_t size) {
  uint8_t digest[32];
  if (km_sha256(data, size, digest) != 0) throw ToolError(kExitFailure, "SHA-256 failed");
  return "sha256:" + Hex(digest, sizeof(digest));
}

}  // namespace tavikm_tool
