// Helpers of the kyheap tests: running programs (with and without the
// tool), reading the workload's own counts, and checking reports with
// libxml2 and with kyheap's own reader.
#ifndef KYRT_TESTS_TOOLS_KYHEAP_TEST_SUPPORT_H
#define KYRT_TESTS_TOOLS_KYHEAP_TEST_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "heap_report.h"

namespace kyheap_test {

constexpr const char* kLauncher = KYHEAP_TEST_LAUNCHER;
constexpr const char* kWorkload = KYHEAP_TEST_WORKLOAD;
constexpr const char* kController = KYHEAP_TEST_KYRTCTL;
constexpr const char* kLockFileName = "tsqcmds.dat";
constexpr int kPollMilliseconds = 20;
constexpr int kPatienceMilliseconds = 20000;

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal
  std::string output;
};

inline int DecodeStatus(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

// A child process with pipes to its standard input and output.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv) {
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
      std::vector<char*> arguments;
      for (const std::string& argument : argv)
        arguments.push_back(const_cast<char*>(argument.c_str()));
      arguments.push_back(nullptr);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    input_ = toChild[1];
    output_ = fromChild[0];
  }

  ~Child() {
    closeInput();
    if (output_ >= 0) close(output_);
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0; }

  void write(const std::string& text) {
    ASSERT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void closeInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }

  // Reads until a line equal to expected, or the end of the output.
  bool waitForLine(const std::string& expected) {
    for (;;) {
      const std::size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        const std::string line = buffer_.substr(0, newline);
        transcript_ += buffer_.substr(0, newline + 1);
        buffer_.erase(0, newline + 1);
        if (line == expected) return true;
        continue;
      }
      if (!readMore()) return false;
    }
  }

  // Reads the rest of the output and waits for the process.
  ProcessResult finish() {
    closeInput();
    while (readMore()) {
    }
    transcript_ += buffer_;
    buffer_.clear();
    int raw = 0;
    waitpid(pid_, &raw, 0);
    reaped_ = true;
    return ProcessResult{DecodeStatus(raw), transcript_};
  }

 private:
  bool readMore() {
    char chunk[4096];
    const ssize_t got = read(output_, chunk, sizeof chunk);
    if (got <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(got));
    return true;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  bool reaped_ = false;
  std::string buffer_;
  std::string transcript_;
};

inline ProcessResult RunToEnd(const std::vector<std::string>& argv) {
  Child child(argv);
  if (!child.started()) return ProcessResult{};
  return child.finish();
}

// argv run under kyheap with the given options.
inline std::vector<std::string> UnderTool(const std::vector<std::string>& options,
                                          const std::vector<std::string>& argv) {
  std::vector<std::string> command = {kLauncher};
  command.insert(command.end(), options.begin(), options.end());
  command.push_back("--");
  command.insert(command.end(), argv.begin(), argv.end());
  return command;
}

inline bool FileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
}

// Waits (polling) until path exists and holds a complete report.
inline bool WaitForReport(const std::string& path) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMilliseconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (FileExists(path) && ReadFile(path).find("</kyheap>") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMilliseconds));
  }
  return false;
}

inline bool WaitForText(const std::string& path, const std::string& text) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMilliseconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (ReadFile(path).find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMilliseconds));
  }
  return false;
}

// True when libxml2 parses the file as well-formed XML.
inline bool IsWellFormedXml(const std::string& path) {
  xmlDocPtr document =
      xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (document == nullptr) return false;
  const xmlNode* root = xmlDocGetRootElement(document);
  const bool named = root != nullptr && xmlStrcmp(root->name, BAD_CAST "kyheap") == 0;
  xmlFreeDoc(document);
  return named;
}

inline kyheap::HeapReport ReadReport(const std::string& path) {
  kyheap::HeapReport report;
  std::string error;
  EXPECT_TRUE(kyheap::ReadHeapReport(path, &report, &error)) << path << ": " << error;
  return report;
}

// The files of the current directory whose names start with prefix.
inline std::vector<std::string> FilesStartingWith(const std::string& prefix) {
  std::vector<std::string> names;
  DIR* directory = opendir(".");
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) {
    if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0)
      names.push_back(entry->d_name);
  }
  closedir(directory);
  return names;
}

// One "label allocations N frees N ..." line of the workload's --count.
struct WorkloadCounts {
  uint64_t allocations = 0;
  uint64_t frees = 0;
  uint64_t reallocations = 0;
  uint64_t bytesAllocated = 0;
  uint64_t bytesFreed = 0;
  uint64_t leakedBlocks = 0;
  uint64_t leakedBytes = 0;
};

inline WorkloadCounts CountsLabelled(const std::string& output, const std::string& label) {
  WorkloadCounts counts;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.compare(0, label.size() + 13, label + " allocations ") != 0) continue;
    std::istringstream fields(line.substr(label.size() + 1));
    std::map<std::string, uint64_t> values;
    std::string name;
    uint64_t value = 0;
    while (fields >> name >> value) values[name] = value;
    counts.allocations = values["allocations"];
    counts.frees = values["frees"];
    counts.reallocations = values["reallocations"];
    counts.bytesAllocated = values["bytesAllocated"];
    counts.bytesFreed = values["bytesFreed"];
    counts.leakedBlocks = values["leakedBlocks"];
    counts.leakedBytes = values["leakedBytes"];
    return counts;
  }
  ADD_FAILURE() << "no '" << label << "' line in:\n" << output;
  return counts;
}

// Allocations and bytes of the call sites whose innermost frame is one of
// the workload's counting functions.
inline std::pair<uint64_t, uint64_t> WorkloadSiteSums(const kyheap::HeapReport& report) {
  uint64_t allocations = 0;
  uint64_t bytes = 0;
  for (const kyheap::ReportSite& site : report.topSites) {
    if (site.frames.empty() || site.frames[0].symbol.rfind("workload::Counted", 0) != 0) continue;
    allocations += site.allocations;
    bytes += site.bytes;
  }
  return {allocations, bytes};
}

}  // namespace kyheap_test

#endif  // KYRT_TESTS_TOOLS_KYHEAP_TEST_SUPPORT_H
