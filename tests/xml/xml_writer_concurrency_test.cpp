// One KyXmlWriter shared by several threads, each bracketing its record
// with acquire() and release(): the records never interleave and the
// document parses back whole.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/xml_writer.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRecordsPerThread = 200;

std::string Property(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  std::string text = value != nullptr ? reinterpret_cast<const char*>(value) : "";
  xmlFree(value);
  return text;
}

TEST(XmlWriterConcurrency, RecordsOfFourThreadsSharingOneObjectNeverInterleave) {
  KyPosixHostInstall();
  __KyRtStartup();
  KyXmlWriter writer;
  ASSERT_TRUE(writer.create("shared.xml", false));
  writer.startElement("records", true);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&writer, t] {
      for (int i = 0; i < kRecordsPerThread; ++i) {
        writer.acquire();
        writer.startElement("rec", false).writeAttribute("t", t).writeAttribute("i", i);
        writer.writeStrElement("body", "a<b & c").writeElement("n", i).endElement();
        writer.release();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  writer.close();

  xmlDoc* document = xmlReadFile("shared.xml", nullptr, XML_PARSE_NONET);
  ASSERT_NE(document, nullptr);
  xmlNode* root = xmlDocGetRootElement(document);
  ASSERT_NE(root, nullptr);
  std::vector<int> next(kThreads, 0);
  int records = 0;
  for (xmlNode* rec = root->children; rec != nullptr; rec = rec->next) {
    if (rec->type != XML_ELEMENT_NODE) continue;
    ASSERT_STREQ(reinterpret_cast<const char*>(rec->name), "rec");
    const int t = std::stoi(Property(rec, "t"));
    const int i = std::stoi(Property(rec, "i"));
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(i, next[t]++);
    int children = 0;
    for (xmlNode* child = rec->children; child != nullptr; child = child->next) {
      if (child->type != XML_ELEMENT_NODE) continue;
      xmlChar* content = xmlNodeGetContent(child);
      const std::string text = reinterpret_cast<const char*>(content);
      xmlFree(content);
      if (children++ == 0) {
        EXPECT_EQ(text, "a<b & c");
      } else {
        EXPECT_EQ(text, std::to_string(i));
      }
    }
    EXPECT_EQ(children, 2);
    ++records;
  }
  EXPECT_EQ(records, kThreads * kRecordsPerThread);
  xmlFreeDoc(document);
  xmlCleanupParser();
}

}  // namespace
