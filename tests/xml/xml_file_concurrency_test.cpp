// Threads sharing one XML file: each record, bracketed by acquire and
// release, reaches the file whole.
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/xml_file.h"
#include "support/test_files.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRecordsPerThread = 300;

TEST(XmlFileConcurrency, RecordsOfEightThreadsNeverInterleave) {
  KyPosixHostInstall();
  __KyRtStartup();
  KyXmlFileHandle file = __KyXMLCreateFile("shared.xml", 0);
  ASSERT_NE(file, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([file, t] {
      for (int r = 0; r < kRecordsPerThread; ++r) {
        __KyXMLAcquireFile(file);
        __KyXMLStartWritingOpeningTag(file, "rec");
        __KyXMLWriteIntegerAttribute(file, "t", t);
        __KyXMLWriteIntegerAttribute(file, "r", r);
        __KyXMLFinishWritingOpeningTag(file);
        __KyXMLWriteStringElement(file, "body", "x");
        __KyXMLWriteClosingTag(file, "rec");
        __KyXMLReleaseFile(file);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  __KyXMLCloseFile(&file);
  const std::string text = kyrt_test::ReadFile("shared.xml");
  // Every record is exactly its three lines in order.
  std::vector<int> next(kThreads, 0);
  size_t position = text.find("\n<rec ");
  int records = 0;
  while (position != std::string::npos) {
    int t = -1;
    int r = -1;
    ASSERT_EQ(std::sscanf(text.c_str() + position, "\n<rec t='%d' r='%d'>", &t, &r), 2);
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(r, next[t]++);
    const std::string expectedTail = "\n\t<body>x</body>\n</rec>";
    const size_t tail = text.find('>', position) + 1;
    ASSERT_EQ(text.compare(tail, expectedTail.size(), expectedTail), 0);
    ++records;
    position = text.find("\n<rec ", tail);
  }
  EXPECT_EQ(records, kThreads * kRecordsPerThread);
}

}  // namespace
