// The exported section parser: the shared walk of section_parser.h with an
// observer that logs what it finds (INFO text records) and hands each entry
// to the tool's callback. PC-relative addresses are relative to the bytes
// the tool passed in, which are the section as loaded.
#include <cstddef>
#include <cstdint>

#include "kyrt/log.h"
#include "kyrt/zca.h"
#include "zca/section_messages.h"
#include "zca/section_parser.h"
#include "zca/zca_format.h"

// Declared (and exported) in kyrt/zca.h; the declaration gives them external
// linkage despite const.
extern "C" {
const uint64_t KY_ZCA_FLAG_PCREL = kyrt::zca::kFlagPcRelative;
const uint64_t KY_ZCA_FLAG_PROBE = kyrt::zca::kFlagProbe;
const uint64_t KY_ZCA_FLAG_32BIT = kyrt::zca::kFlag32Bit;
}

namespace {

// The layouts tools embed and receive by pointer.
static_assert(sizeof(KyZCAArgument) == 16, "KyZCAArgument is 16 bytes");
static_assert(offsetof(KyZCAArgument, value) == 0, "KyZCAArgument.value at 0");
static_assert(offsetof(KyZCAArgument, isRegister) == 8, "KyZCAArgument.isRegister at 8");
static_assert(offsetof(KyZCAArgument, offset) == 12, "KyZCAArgument.offset at 12");
static_assert(sizeof(KyZCARecord) == 64, "KyZCARecord is 64 bytes");
static_assert(offsetof(KyZCARecord, address) == 0, "KyZCARecord.address at 0");
static_assert(offsetof(KyZCARecord, name) == 8, "KyZCARecord.name at 8");
static_assert(offsetof(KyZCARecord, expression) == 16, "KyZCARecord.expression at 16");
static_assert(offsetof(KyZCARecord, probe) == 24, "KyZCARecord.probe at 24");
static_assert(offsetof(KyZCARecord, argumentCount) == 28, "KyZCARecord.argumentCount at 28");
static_assert(offsetof(KyZCARecord, arguments) == 32, "KyZCARecord.arguments at 32");

void LogInfoText(const char* text) {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "%s", text);
}

class LoggingObserver {
 public:
  LoggingObserver(KyZCARecordCallback callback, void* user) : callback_(callback), user_(user) {}

  void tableStarted(uint64_t, uint16_t version) {
    LogInfoText(version == kyrt::zca::kVersion11 ? kyrt::zca::kFoundVersion11
                                                 : kyrt::zca::kFoundVersion12);
  }

  void tableRead(const kyrt::zca::TableHeader&) {}

  void entryFound(const kyrt::zca::TableHeader&, KyZCARecord& record,
                  kyrt::zca::LocationForm form) {
    if (form == kyrt::zca::LocationForm::kUnsupported) {
      LogInfoText(kyrt::zca::kUnsupportedExpression);
    }
    if (callback_ != nullptr) callback_(&record, user_);
  }

  void sectionFailed(const kyrt::zca::SectionError& error) {
    char text[kyrt::zca::kSectionMessageSize];
    LogInfoText(kyrt::zca::DescribeSectionError(error, text, sizeof text));
  }

 private:
  const KyZCARecordCallback callback_;
  void* const user_;
};

}  // namespace

extern "C" {

void __KyZCAParseAndProcessRecords(uint64_t moduleBase, const uint8_t* section, uint64_t size,
                                   KyZCARecordCallback callback, void* user) noexcept {
  const kyrt::zca::SectionPlacement placement{moduleBase, reinterpret_cast<uintptr_t>(section)};
  LoggingObserver observer(callback, user);
  kyrt::zca::ParseSection(section, size, placement, observer);
}

}  // extern "C"
