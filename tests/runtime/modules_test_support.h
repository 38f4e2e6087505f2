// Helpers shared by the tests of the module family: synthetic memory maps,
// the process's real memory map, and FIFOs that hold a scan in place.
#ifndef KYRT_TESTS_RUNTIME_MODULES_TEST_SUPPORT_H
#define KYRT_TESTS_RUNTIME_MODULES_TEST_SUPPORT_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "runtime/proc_paths.h"
#include "support/test_files.h"

namespace kyrt_test {

constexpr const char* kMapsPath = "maps";

// Points the memory-map scan at kMapsPath in the case's scratch directory.
inline void UseMapsFileForScans() {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, kMapsPath});
}

// Writes content as the memory map the scans read.
inline void UseMaps(const std::string& content) {
  unlink(kMapsPath);  // it may be a FIFO left by an earlier case
  WriteFile(kMapsPath, content);
  UseMapsFileForScans();
}

// Makes kMapsPath a FIFO: a scan then blocks in its open until the test
// opens the write end.
inline bool UseMapsFifo() {
  UseMapsFileForScans();
  unlink(kMapsPath);
  return mkfifo(kMapsPath, 0600) == 0;
}

inline void UseRealMaps() {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, nullptr});
}

inline uint64_t AddressOf(const void* object) {
  return reinterpret_cast<uint64_t>(object);
}

// The line of the real /proc/self/maps whose range [start, end) holds
// address, or "" when none does.
inline std::string RealMapsLineHolding(uint64_t address) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    unsigned long start = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx", &start, &end) != 2) continue;
    if (start <= address && address < end) return line;
  }
  return "";
}

// The permission field ("rw-p" and the like) of a maps line.
inline std::string PermissionsOf(const std::string& mapsLine) {
  const std::size_t space = mapsLine.find(' ');
  return space == std::string::npos ? "" : mapsLine.substr(space + 1, 4);
}

// Opens the write end of the FIFO at path as soon as a reader has it open:
// the descriptor, or -1 when no reader came within the timeout.
inline int OpenFifoWriterOnceReaderWaits(
    const char* path, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const int writer = open(path, O_WRONLY | O_NONBLOCK);
    if (writer >= 0) return writer;
    if (errno != ENXIO || std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Hands text to the reader of a FIFO and closes the write end, which ends
// the reader's file.
inline bool FeedFifoAndClose(int writer, const std::string& text) {
  const bool written = write(writer, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(writer);
  return written;
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_RUNTIME_MODULES_TEST_SUPPORT_H
