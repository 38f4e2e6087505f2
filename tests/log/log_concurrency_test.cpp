// Records written by eight threads at once never interleave: the finished
// log is parsed with a real XML parser and every record is accounted for.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"

namespace {

constexpr int kThreads = 8;
#if defined(__SANITIZE_THREAD__)
constexpr int kRecordsPerThread = 150;
#else
constexpr int kRecordsPerThread = 500;
#endif

std::string Text(xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

bool Named(xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE &&
         std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

TEST(LogConcurrency, EightThreadsWriteWholeRecordsWithUniqueIds) {
  KyPosixHostInstall();
  __KyRtStartup();
  const char* const names[] = {"thread", "record", "text", nullptr};
  const KyLogMessageDefinition definition{"WORK", names, 0, 0};
  const int32_t id = __KyRegisterLogMessage2(&definition);
  ASSERT_GE(id, 2);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([id, t] {
      for (int r = 0; r < kRecordsPerThread; ++r) {
        __KyLogInternal(KY_LOG_INFO, id, 0, KY_LOG_ARG_INT, t, KY_LOG_ARG_INT, r, KY_LOG_ARG_STRING,
                        "<payload & 'quotes'>", KY_LOG_ARG_END);
        if (r % 50 == 0) __KyLogCommentInternal("thread %d at %d", t, r);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  __KyCloseLogger();

  xmlDoc* document = xmlReadFile("kylog.log", nullptr, XML_PARSE_NONET);
  ASSERT_NE(document, nullptr) << "the log is not well-formed XML";
  xmlNode* root = xmlDocGetRootElement(document);
  ASSERT_TRUE(Named(root, "log"));
  std::set<long> recordIds;
  std::vector<int> next(kThreads, 0);
  for (xmlNode* msg = root->children; msg != nullptr; msg = msg->next) {
    if (!Named(msg, "msg")) continue;
    xmlChar* idText = xmlGetProp(msg, reinterpret_cast<const xmlChar*>("id"));
    recordIds.insert(std::strtol(reinterpret_cast<const char*>(idText), nullptr, 10));
    xmlFree(idText);
    std::vector<std::string> args;
    for (xmlNode* child = msg->children; child != nullptr; child = child->next) {
      if (Named(child, "arg")) args.push_back(Text(child));
    }
    ASSERT_EQ(args.size(), 3u);
    const int t = std::stoi(args[0]);
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(std::stoi(args[1]), next[t]++);  // each thread's records in its own order
    EXPECT_EQ(args[2], "<payload & 'quotes'>");
  }
  xmlFreeDoc(document);
  xmlCleanupParser();
  EXPECT_EQ(recordIds.size(), static_cast<size_t>(kThreads * kRecordsPerThread));
  EXPECT_EQ(*recordIds.begin(), 1);
  EXPECT_EQ(*recordIds.rbegin(), kThreads * kRecordsPerThread);
}

}  // namespace
