// The structured log against the plain alternative: a record with typed
// arguments, written whole and flushed, against fprintf of one line with the
// same content followed by fflush.
//
//   typed_record   a message with an integer, a string and a pointer
//                  argument: the runtime writes the XML record under the
//                  log's lock and flushes it; the peer formats the same
//                  fields (id, type, severity, time stamp, arguments) into
//                  one line of a stream and flushes it
//
// Both write to files in a private temporary directory.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/log.h"

namespace {

using kyrt::bench::AtMost;

const kyrt::bench::TargetTable kTargets{
    {"typed_record", "fprintf_fflush", AtMost(1.5)},
};

const char* const kArgumentNames[] = {"count", "name", "where", nullptr};

std::string ScratchDirectory() {
  char pattern[] = "/tmp/kyrt-log-bench-XXXXXX";
  const char* directory = mkdtemp(pattern);
  return directory ? directory : ".";
}

const std::string& Directory() {
  static const std::string directory = ScratchDirectory();
  return directory;
}

int32_t RecordMessage() {
  static const int32_t id = [] {
    __KyCreateLogger("bench", (Directory() + "/kylog.log").c_str(), 0);
    const KyLogMessageDefinition definition{"BENCH_RECORD", kArgumentNames, 0, 0};
    return __KyRegisterLogMessage2(&definition);
  }();
  return id;
}

void TypedRecordOurs(benchmark::State& state) {
  const int32_t id = RecordMessage();
  int count = 0;
  for (auto _ : state) {
    __KyLogInternal(KY_LOG_INFO, id, 0, KY_LOG_ARG_INT, ++count, KY_LOG_ARG_STRING, "allocation",
                    KY_LOG_ARG_POINTER, &count, KY_LOG_ARG_END);
  }
}

void TypedRecordFprintf(benchmark::State& state) {
  std::FILE* stream = std::fopen((Directory() + "/plain.log").c_str(), "w");
  int count = 0;
  unsigned record = 0;
  for (auto _ : state) {
    const std::time_t now = std::time(nullptr);
    std::tm local;
    char stamp[64];
    localtime_r(&now, &local);
    asctime_r(&local, stamp);
    std::fprintf(stream, "%u BENCH_RECORD INFO %.24s count=%d name=%s where=%p\n", ++record, stamp,
                 ++count, "allocation", static_cast<void*>(&count));
    std::fflush(stream);
  }
  std::fclose(stream);
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("typed_record/ours", TypedRecordOurs);
  benchmark::RegisterBenchmark("typed_record/fprintf_fflush", TypedRecordFprintf);
  return true;
}();

}  // namespace
