// Helpers shared by the memory tests: an underlying allocator that counts
// and fails on demand, the fixture that installs it before any other memory
// call of the process, and a reader of the log's records.
#ifndef KYRT_TESTS_MEMORY_MEMORY_TEST_SUPPORT_H
#define KYRT_TESTS_MEMORY_MEMORY_TEST_SUPPORT_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "memory/categories.h"
#include "memory/slabs.h"
#include "support/test_files.h"

namespace kyrt_test {

// ---------------------------------------------------------------------------
// The fake underlying allocator
// ---------------------------------------------------------------------------

// Blocks come from the C library with a 16-byte header of the fake's own in
// front (it remembers the block's size), so that a block is 16-byte aligned
// like the C library's. Requests of at least failFromSize bytes fail while
// failuresLeft is above 0 (each failure uses one up) or equals kFailForever.
// The hooks run inside the allocator, as a host's allocator might call back.
inline constexpr int kFailForever = -1;

struct FakeAllocator {
  std::atomic<uint64_t> requests{0};
  std::atomic<uint64_t> failures{0};
  std::atomic<uint64_t> releases{0};
  std::atomic<uint64_t> lastRequestSize{0};
  std::atomic<void*> lastBlock{nullptr};
  std::atomic<void*> lastReleased{nullptr};
  std::atomic<uint64_t> reserveRequests{0};
  std::atomic<uint64_t> reserveReleases{0};
  std::atomic<uint64_t> failFromSize{UINT64_MAX};
  std::atomic<int> failuresLeft{0};
  // Called with every request's size before it is served or refused.
  std::atomic<void (*)(size_t)> onRequest{nullptr};
  // Called with every release's size before the block is freed.
  std::atomic<void (*)(size_t)> onRelease{nullptr};
};

inline FakeAllocator g_fake;

struct FakeHeader {
  uint64_t size;
  uint64_t unused;
};
static_assert(sizeof(FakeHeader) == 16);

inline bool FakeShouldFail(size_t size) {
  if (size < g_fake.failFromSize.load()) return false;
  int left = g_fake.failuresLeft.load();
  if (left == kFailForever) return true;
  while (left > 0) {
    if (g_fake.failuresLeft.compare_exchange_weak(left, left - 1)) return true;
  }
  return false;
}

inline void* FakeAllocate(size_t size) {
  g_fake.requests.fetch_add(1);
  g_fake.lastRequestSize.store(size);
  if (size == KY_RESERVE_BLOCK_SIZE) g_fake.reserveRequests.fetch_add(1);
  if (auto hook = g_fake.onRequest.load()) hook(size);
  if (FakeShouldFail(size)) {
    g_fake.failures.fetch_add(1);
    return nullptr;
  }
  auto* header = static_cast<FakeHeader*>(std::malloc(sizeof(FakeHeader) + size));
  if (header == nullptr) return nullptr;
  header->size = size;
  void* block = header + 1;
  g_fake.lastBlock.store(block);
  return block;
}

inline void FakeRelease(void* block) {
  if (block == nullptr) return;
  FakeHeader* header = static_cast<FakeHeader*>(block) - 1;
  g_fake.releases.fetch_add(1);
  g_fake.lastReleased.store(block);
  if (header->size == KY_RESERVE_BLOCK_SIZE) g_fake.reserveReleases.fetch_add(1);
  if (auto hook = g_fake.onRelease.load()) hook(header->size);
  std::free(header);
}

// Makes the next `count` requests of at least `size` bytes fail
// (kFailForever: all of them).
inline void FailRequestsFrom(uint64_t size, int count) {
  g_fake.failFromSize.store(size);
  g_fake.failuresLeft.store(count);
}

inline void StopFailing() {
  g_fake.failuresLeft.store(0);
  g_fake.failFromSize.store(UINT64_MAX);
}

// ---------------------------------------------------------------------------
// Figures of the allocator
// ---------------------------------------------------------------------------

inline constexpr uint64_t kSlabBytes = 65536;              // slab shift 0
inline constexpr uint64_t kSlabRequest = kSlabBytes - 16;  // what a slab asks for
inline constexpr uint32_t kChunksOfOneUnit = 4092;         // per 64 KiB slab
inline constexpr uint64_t kTwoChunkSize = 32728;           // 2046 units: 2 per slab
inline constexpr uint64_t kLargeSize = 40000;              // above the small limit

inline kyrt::memory::SlabHeader* SlabOf(void* block) {
  return reinterpret_cast<kyrt::memory::SlabHeader*>(*kyrt::memory::ChunkWordOf(block));
}

inline MemoryCategoryInfo CategoryInfo(uint32_t id) {
  MemoryCategoryInfo info{};
  EXPECT_EQ(__KyGetMemoryInfoByCategory(id, &info), 1) << "category " << id;
  return info;
}

// ---------------------------------------------------------------------------
// The log
// ---------------------------------------------------------------------------

// One "msg" record of kylog.log.
struct LogRecord {
  std::string id;
  bool hidden = false;  // display='false'
  std::string type;
  std::string severity;
  std::vector<std::pair<std::string, std::string>> arguments;
  std::string text;  // the comment of a text message
};

// Reads the records of a log text one after the other, each laid out
// exactly as a record at depth 1: a tab before the msg tags, two before its
// children. Stops at the first deviation and reports it as a test failure.
class LogRecordReader {
 public:
  explicit LogRecordReader(const std::string& log) : log_(log) {}

  // The next record, or false at the end of the log or at a malformed one.
  bool next(LogRecord* record) {
    const size_t start = log_.find("\n\t<msg ", at_);
    if (start == std::string::npos) return false;
    at_ = start;
    *record = LogRecord{};
    if (readRecord(record)) return true;
    ADD_FAILURE() << "malformed record at offset " << start << ":\n" << log_.substr(start, 400);
    at_ = std::string::npos;
    return false;
  }

 private:
  bool readRecord(LogRecord* record) {
    if (!accept("\n\t<msg id='") || !readUntil("'", &record->id) || record->id.empty())
      return false;
    record->hidden = accept(" display='false'");
    std::string timestamp;
    if (!accept(" source='kyrt'>") || !readElement("type", &record->type) ||
        !readElement("severity", &record->severity) || !readElement("timestamp", &timestamp)) {
      return false;
    }
    if (!IsAsctime(timestamp)) return false;
    if (record->severity != "ERROR" && record->severity != "WARNING" &&
        record->severity != "INFO") {
      return false;
    }
    while (accept("\n\t\t<arg name='")) {
      std::string name;
      std::string value;
      if (!readUntil("'>", &name) || !readUntil("</arg>", &value)) return false;
      record->arguments.emplace_back(name, value);
    }
    if (accept("\n\t\t<!-- ") && !readUntil(" -->", &record->text)) return false;
    return accept("\n\t</msg>");
  }

  // "Sun Nov 22 00:31:40 2026": day and month names, day of the month padded
  // with a space, the time and the year.
  static bool IsAsctime(const std::string& stamp) {
    static const char kShape[] = "Aaa Aaa _9 99:99:99 9999";
    if (stamp.size() != sizeof kShape - 1) return false;
    for (size_t at = 0; at < stamp.size(); ++at) {
      const char c = stamp[at];
      bool fits = false;
      switch (kShape[at]) {
        case 'A':
          fits = c >= 'A' && c <= 'Z';
          break;
        case 'a':
          fits = c >= 'a' && c <= 'z';
          break;
        case '9':
          fits = c >= '0' && c <= '9';
          break;
        case '_':
          fits = c == ' ' || (c >= '0' && c <= '9');
          break;
        default:
          fits = c == kShape[at];
          break;
      }
      if (!fits) return false;
    }
    return true;
  }

  bool accept(const std::string& text) {
    if (log_.compare(at_, text.size(), text) != 0) return false;
    at_ += text.size();
    return true;
  }

  // Reads up to the terminator (which is consumed); the value holds no
  // line break.
  bool readUntil(const std::string& terminator, std::string* value) {
    const size_t end = log_.find(terminator, at_);
    if (end == std::string::npos) return false;
    *value = log_.substr(at_, end - at_);
    at_ = end + terminator.size();
    return value->find('\n') == std::string::npos;
  }

  bool readElement(const std::string& name, std::string* value) {
    return accept("\n\t\t<" + name + ">") && readUntil("</" + name + ">", value);
  }

  const std::string& log_;
  size_t at_ = 0;
};

// Every record of kylog.log, in order.
inline std::vector<LogRecord> ReadLogRecords() {
  const std::string log = ReadFile(KY_LOG_DEFAULT_FILE);
  std::vector<LogRecord> records;
  LogRecordReader reader(log);
  for (LogRecord record; reader.next(&record);) records.push_back(record);
  size_t opened = 0;
  for (size_t at = log.find("<msg "); at != std::string::npos; at = log.find("<msg ", at + 1)) {
    ++opened;
  }
  EXPECT_EQ(records.size(), opened) << "kylog.log holds a record out of place:\n" << log;
  return records;
}

// The records of the built-in text message ("INTERNAL").
inline std::vector<LogRecord> TextRecords() {
  std::vector<LogRecord> texts;
  for (const LogRecord& record : ReadLogRecords()) {
    if (record.type == "INTERNAL") texts.push_back(record);
  }
  return texts;
}

inline size_t CountRecords(const std::string& type) {
  size_t count = 0;
  for (const LogRecord& record : ReadLogRecords()) count += record.type == type;
  return count;
}

inline size_t CountTextRecords(const std::string& text) {
  size_t count = 0;
  for (const LogRecord& record : TextRecords()) count += record.text == text;
  return count;
}

// The text of a status line ("Allocation status for ..." and the like).
inline std::string StatusLine(const char* format, const char* name, long bytes) {
  char line[256];
  std::snprintf(line, sizeof line, format, name, bytes);
  return line;
}

inline void ExpectFreeingReservesRecord(const LogRecord& record) {
  EXPECT_EQ(record.type, "FREEING_RESERVES");
  EXPECT_EQ(record.severity, "WARNING");
  EXPECT_TRUE(record.hidden);
  ASSERT_EQ(record.arguments.size(), 1u);
  EXPECT_EQ(record.arguments[0].first, "num_bytes");
  EXPECT_EQ(record.arguments[0].second, "33554416");
}

// ---------------------------------------------------------------------------
// Fixtures
// ---------------------------------------------------------------------------

// Installs the fake allocator (the process's first memory call), the POSIX
// hooks, starts the runtime and opens the log with a first comment, so
// that the records of the memory paths never have to create the log file
// (which allocates) while the fake is refusing.
class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
    KyPosixHostInstall();
    __KyRtStartup();
    __KyLogCommentInternal("memory test");
    ASSERT_EQ(__KyIsLoggerInitialized(), 1);
  }
};

// The same without the log: nothing has been logged yet.
class MemoryTestWithoutLog : public ::testing::Test {
 protected:
  void SetUp() override {
    __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
    KyPosixHostInstall();
    __KyRtStartup();
  }
};

}  // namespace kyrt_test

#endif  // KYRT_TESTS_MEMORY_MEMORY_TEST_SUPPORT_H
