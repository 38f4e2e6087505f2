// The record behind a KyXmlFileHandle.
//
//   stream  the open file (opened so that its descriptor is above 2)
//   path    private copy of the path, for reopening; allocated with the
//           path's length plus 10 bytes and never freed (one per file)
//   owner   native id of the thread holding `lock`, 0 when free
//   depth   nesting depth: the tabs written at the start of each new line
//   lock    serialises whole records of threads sharing the file
//   text    scratch space for escaped values and comment text; its last
//           byte is always 0
#ifndef KYRT_XML_XML_FILE_RECORD_H
#define KYRT_XML_XML_FILE_RECORD_H

#include <cstdint>
#include <cstdio>

#include "kyrt/spin_lock.h"
#include "kyrt/xml_file.h"

struct KyXmlFileRecord {
  std::FILE* stream;
  char* path;
  uint32_t owner;
  uint32_t depth;
  KySpinLock lock;
  char text[KY_XML_TEXT_BUFFER_SIZE];
};

#endif  // KYRT_XML_XML_FILE_RECORD_H
