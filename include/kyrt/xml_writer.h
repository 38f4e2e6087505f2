/*
 * KYRT - support runtime for analysis tools.
 *
 * KyXmlWriter: an XML result file as an object. C++ only.
 *
 * The object owns one XML file handle (kyrt/xml_file.h) and sequences the
 * file writer's calls: it remembers the names of the open elements, ends a
 * half-written opening tag with ">" by itself when content follows, and
 * closes every open element when the file is closed or the object
 * destroyed. Formatting, escaping, indentation and locking are the file
 * writer's: text values and string elements are escaped, attribute strings
 * are written as given.
 *
 * Tag states (tagState()):
 *   kTagStarted      an opening tag was started by startElement(name, false)
 *                    and is still open for attributes (no ">" yet)
 *   kInsideElement   the opening tag is complete; content may follow
 *   kBetweenElements the last thing written was a complete element or a
 *                    closing tag (the state of a new object)
 * An element started without "complete" that gets no content still ends
 * with a separate closing tag: the object never writes "<name/>".
 *
 * Failures: no operation reports one. Without an open file every writing
 * operation writes nothing (the file writer ignores a null handle) but
 * still updates the element stack and the tag state.
 *
 * Threads: the object is not locked. Threads sharing one object bracket
 * each group of writes with acquire() and release() (the file's lock,
 * which also flushes the group to the file on release).
 *
 * Layout (the class is exported): the virtual table pointer (slots: the
 * destructor, then the deleting destructor), the stack of open element
 * names (a std::deque<std::string>, innermost at the back), the tag state
 * (32-bit unsigned), the file handle.
 */
#ifndef KYRT_XML_WRITER_H
#define KYRT_XML_WRITER_H

#include "kyrt/export.h"
#include "kyrt/xml_file.h"

#ifdef __cplusplus

#include <cstddef>
#include <deque>
#include <string>

class KYRT_API KyXmlWriter {
 public:
  enum TagState : uint32_t { kTagStarted = 0, kInsideElement = 1, kBetweenElements = 2 };

  /* No file, no open element, state kBetweenElements. */
  KyXmlWriter() noexcept;

  /* close(), then the stack is freed. */
  virtual ~KyXmlWriter() noexcept;

  /* The object owns its file handle: it is neither copied nor moved. */
  KyXmlWriter(const KyXmlWriter&) = delete;
  KyXmlWriter& operator=(const KyXmlWriter&) = delete;

  /* Opens path for writing, or for appending when append is true (see
   * __KyXMLCreateFile: a new or empty file gets the XML header; appending
   * indents one level, the root element being taken as open). A file that
   * is already open is closed first, with all its open elements. Returns
   * true when the new file is open, false when it cannot be opened (the
   * object then has no file). The tag state is left as it is. */
  bool create(const char* path, bool append) noexcept;

  /* Ends a started tag, then begins element name on a new line: "<name>"
   * when complete (state kInsideElement), else "<name" open for attributes
   * (state kTagStarted). name must not be null; the object keeps a copy
   * for the closing tag. */
  KyXmlWriter& startElement(const char* name, bool complete) noexcept;

  /* " name='value'" with the value as given (not escaped): pass values
   * without "'". Written wherever the output stands, whatever the tag
   * state: call the attribute writers right after startElement(name,
   * false). The state is unchanged. */
  KyXmlWriter& writeStrAttribute(const char* name, const std::string& value) noexcept;

  /* " name='value'" with "%d", "%llu", and for an address "0x%llx". The
   * state is unchanged. */
  KyXmlWriter& writeAttribute(const char* name, int value) noexcept;
  KyXmlWriter& writeAttribute(const char* name, unsigned long long value) noexcept;
  KyXmlWriter& writeAttribute(const char* name, const void* address) noexcept;

  /* Content on the current line: the escaped text, or "%d". A started tag
   * is ended first (state kInsideElement); otherwise the state stays. */
  KyXmlWriter& write(const std::string& text) noexcept;
  KyXmlWriter& write(int value) noexcept;

  /* Ends a started tag, then a whole element on a new line:
   * "<name>value</name>". The unsigned long long overload prints with
   * "%llu"; the others widen the value to 64 bits (int with its sign, so -1
   * prints as 18446744073709551615) and print with "%lu". State
   * kBetweenElements. */
  KyXmlWriter& writeElement(const char* name, unsigned long long value) noexcept;
  KyXmlWriter& writeElement(const char* name, unsigned long value) noexcept;
  KyXmlWriter& writeElement(const char* name, unsigned int value) noexcept;
  KyXmlWriter& writeElement(const char* name, int value) noexcept;

  /* Ends a started tag, then "<name>escaped value</name>" on a new line.
   * State kBetweenElements. */
  KyXmlWriter& writeStrElement(const char* name, const std::string& value) noexcept;

  /* Ends a started tag, then "<name>0x%llx</name>" on a new line. State
   * kBetweenElements. */
  KyXmlWriter& writeAddressElement(const char* name, unsigned long address) noexcept;
  KyXmlWriter& writeAddressElement(const char* name, const void* address) noexcept;

  /* Ends a started tag with ">", then closes the innermost open element on
   * a new line ("</name>"; never "<name/>"). State kBetweenElements. With
   * no open element (a caller error) nothing is written and nothing
   * changes. */
  KyXmlWriter& endElement() noexcept;

  /* Ends a started tag (state kInsideElement), then closes every open
   * element, innermost first. State kBetweenElements when anything was
   * closed; otherwise unchanged (or kInsideElement if a tag was ended). */
  KyXmlWriter& endAll() noexcept;

  /* endAll(), then closes the file (the handle becomes null; if closing
   * fails the handle stays for a retry). Without a file only endAll()'s
   * bookkeeping happens. The object may be given a new file with create(). */
  void close() noexcept;

  /* Takes / releases the file's lock (release flushes). Nothing without a
   * file. */
  void acquire() noexcept;
  void release() noexcept;

  /* Writes ">" when the state is kTagStarted, and leaves the state to the
   * caller. */
  void autoFinishStartedTag() noexcept;

  /* The tag state, the number of open elements and the file handle (null
   * when no file is open; owned by the object). */
  TagState tagState() const noexcept { return tagState_; }
  std::size_t openElementCount() const noexcept { return openElements_.size(); }
  KyXmlFileHandle fileHandle() const noexcept { return file_; }

 private:
  /* Helpers of the library's own, not exported. */

  /* Ends a started tag and records that content may follow. */
  __attribute__((visibility("hidden"))) void finishStartedTagForContent() noexcept;

  /* Records that a whole element was written; returns the object. */
  __attribute__((visibility("hidden"))) KyXmlWriter& wholeElementWritten() noexcept;

  /* Writes the closing tag of the innermost open element and forgets it. */
  __attribute__((visibility("hidden"))) void closeInnermostElement() noexcept;

  std::deque<std::string> openElements_;
  TagState tagState_;
  KyXmlFileHandle file_;
};

#endif /* __cplusplus */

#endif /* KYRT_XML_WRITER_H */
