// Parsing a tool's command line of 50 options, against the C library's
// getopt_long_only on the same command line (for scale; no bound).
//
//   parse_50_options   15 booleans (5 of them negated), 15 integers (decimal
//                      and hexadecimal), 10 strings, 5 enumerations with
//                      valid arguments given abbreviated, 5 paths: 85
//                      tokens. The runtime looks every name up exactly,
//                      converts the integers, checks the enumerations
//                      against their lists and stores private copies of the
//                      strings (paths sanitised). The peer walks the same
//                      tokens (behind a program name) with getopt_long_only,
//                      converts the integers with strtol, matches the
//                      enumerations as prefixes of their values and keeps
//                      pointers to the string arguments, as a typical
//                      getopt loop does.
#include <getopt.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "kyrt/options.h"

namespace {

constexpr int kBooleans = 15;
constexpr int kNegatedBooleans = 5;
constexpr int kIntegers = 15;
constexpr int kStrings = 10;
constexpr int kEnums = 5;
constexpr int kPaths = 5;

const char* const kEnumValues[] = {"sequential", "parallel", "adaptive"};

// The command line, without a program name: "-bN", "-no-bN", "-iN value",
// "-sN value", "-eN value", "-pN value".
std::vector<std::string> CommandLineTokens() {
  std::vector<std::string> tokens;
  for (int i = 0; i < kBooleans; ++i) {
    tokens.push_back((i < kNegatedBooleans ? "-no-b" : "-b") + std::to_string(i));
  }
  for (int i = 0; i < kIntegers; ++i) {
    tokens.push_back("-i" + std::to_string(i));
    tokens.push_back(i % 2 ? "0x" + std::to_string(10 + i) : std::to_string(1000 * i + 7));
  }
  for (int i = 0; i < kStrings; ++i) {
    tokens.push_back("-s" + std::to_string(i));
    tokens.push_back("value-of-string-" + std::to_string(i));
  }
  for (int i = 0; i < kEnums; ++i) {
    tokens.push_back("-e" + std::to_string(i));
    tokens.push_back(std::string(kEnumValues[i % 3]).substr(0, 3));
  }
  for (int i = 0; i < kPaths; ++i) {
    tokens.push_back("-p" + std::to_string(i));
    tokens.push_back("/tmp//results///run" + std::to_string(i));
  }
  return tokens;
}

// An argument vector over tokens, optionally behind a program name.
struct ArgumentVector {
  std::vector<std::string> tokens;
  std::vector<char*> pointers;

  ArgumentVector(std::vector<std::string> from, const char* programName) : tokens(std::move(from)) {
    if (programName != nullptr) tokens.insert(tokens.begin(), programName);
    for (std::string& token : tokens) pointers.push_back(token.data());
    pointers.push_back(nullptr);
  }

  int count() const { return static_cast<int>(tokens.size()); }
};

uint32_t RegisterOurOptions() {
  const uint32_t parser = __KyGetOptionParser("bench");
  for (int i = 0; i < kBooleans; ++i) {
    __KyRegisterBooleanOption(parser, ("-b" + std::to_string(i)).c_str(), "a flag", i % 2, 0, 1);
  }
  for (int i = 0; i < kIntegers; ++i) {
    __KyRegisterIntegerOption(parser, ("-i" + std::to_string(i)).c_str(), "a number", 0, 0, 1);
  }
  for (int i = 0; i < kStrings; ++i) {
    __KyRegisterStringOption(parser, ("-s" + std::to_string(i)).c_str(), "a text", nullptr, 0, 0,
                             1);
  }
  for (int i = 0; i < kEnums; ++i) {
    const uint32_t option = __KyRegisterStringEnumOption(parser, ("-e" + std::to_string(i)).c_str(),
                                                         "a strategy", kEnumValues[0], 0, 1);
    for (uint32_t value = 0; value < 3; ++value) {
      __KySetValidStringOptionArgumentWithEnum(parser, option, kEnumValues[value], value);
    }
  }
  for (int i = 0; i < kPaths; ++i) {
    __KyRegisterPathOption(parser, ("-p" + std::to_string(i)).c_str(), "a folder", nullptr, 0, 0,
                           1);
  }
  return parser;
}

void ParseOurs(benchmark::State& state) {
  static const uint32_t parser = RegisterOurOptions();
  const ArgumentVector arguments(CommandLineTokens(), nullptr);
  for (auto _ : state) {
    const int parsed = __KyParseOptions2(parser, static_cast<uint32_t>(arguments.count()),
                                         arguments.pointers.data());
    if (parsed != 1) state.SkipWithError("the command line was refused");
    benchmark::DoNotOptimize(parsed);
  }
}

// getopt's val of option i: past every character, so that no option's
// value can be taken for the '?' of a refused token.
constexpr int kFirstPeerValue = 256;

// The peer's option table: one entry per option and per negated boolean,
// the option's index (plus kFirstPeerValue) in val.
struct PeerOptions {
  std::vector<std::string> names;
  std::vector<option> table;

  PeerOptions() {
    for (int i = 0; i < kBooleans; ++i) names.push_back("b" + std::to_string(i));
    for (int i = 0; i < kBooleans; ++i) names.push_back("no-b" + std::to_string(i));
    for (int i = 0; i < kIntegers; ++i) names.push_back("i" + std::to_string(i));
    for (int i = 0; i < kStrings; ++i) names.push_back("s" + std::to_string(i));
    for (int i = 0; i < kEnums; ++i) names.push_back("e" + std::to_string(i));
    for (int i = 0; i < kPaths; ++i) names.push_back("p" + std::to_string(i));
    for (size_t i = 0; i < names.size(); ++i) {
      const bool takesValue = i >= 2 * kBooleans;
      table.push_back({names[i].c_str(), takesValue ? required_argument : no_argument, nullptr,
                       kFirstPeerValue + static_cast<int>(i)});
    }
    table.push_back({nullptr, 0, nullptr, 0});
  }
};

struct PeerValues {
  int booleans[kBooleans];
  long integers[kIntegers];
  const char* strings[kStrings];
  int enums[kEnums];
  const char* paths[kPaths];
};

int PeerEnumValue(const char* text) {
  const size_t length = std::strlen(text);
  for (int value = 0; value < 3; ++value) {
    if (std::strncmp(kEnumValues[value], text, length) == 0) return value;
  }
  return -1;
}

// Stores one option's value; false for a value the peer refuses.
bool StorePeerValue(int index, const char* value, PeerValues& values) {
  if (index < kBooleans) {
    values.booleans[index] = 1;
    return true;
  }
  index -= kBooleans;
  if (index < kBooleans) {
    values.booleans[index] = 0;
    return true;
  }
  index -= kBooleans;
  if (index < kIntegers) {
    char* end = nullptr;
    values.integers[index] = std::strtol(value, &end, 0);
    return *end == '\0';
  }
  index -= kIntegers;
  if (index < kStrings) {
    values.strings[index] = value;
    return true;
  }
  index -= kStrings;
  if (index < kEnums) {
    values.enums[index] = PeerEnumValue(value);
    return values.enums[index] >= 0;
  }
  values.paths[index - kEnums] = value;
  return true;
}

void ParseGetoptLongOnly(benchmark::State& state) {
  const PeerOptions options;
  const ArgumentVector arguments(CommandLineTokens(), "bench");
  PeerValues values{};
  for (auto _ : state) {
    optind = 0;  // the C library's full reinitialisation
    opterr = 0;
    int index = 0;
    bool ok = true;
    while ((index = getopt_long_only(arguments.count(), arguments.pointers.data(), "",
                                     options.table.data(), nullptr)) != -1) {
      ok =
          ok && index >= kFirstPeerValue && StorePeerValue(index - kFirstPeerValue, optarg, values);
    }
    if (!ok) state.SkipWithError("the command line was refused");
    benchmark::DoNotOptimize(values);
  }
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("parse_50_options/ours", ParseOurs);
  benchmark::RegisterBenchmark("parse_50_options/getopt_long_only", ParseGetoptLongOnly);
  return true;
}();

}  // namespace
