// The annotation records' layouts: sizes and field offsets as tools embed
// and receive them, the same from C and C++.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "gtest/gtest.h"
#include "kyrt/zca.h"

extern "C" size_t zca_layout_from_c(int index);

namespace {

struct Expected {
  const char* what;
  size_t cxx;
  size_t value;
};

// In the order of zca_layout_c.c.
const Expected kLayout[] = {
    {"sizeof KyZCAArgument", sizeof(KyZCAArgument), 16},
    {"KyZCAArgument.value", offsetof(KyZCAArgument, value), 0},
    {"KyZCAArgument.isRegister", offsetof(KyZCAArgument, isRegister), 8},
    {"KyZCAArgument.offset", offsetof(KyZCAArgument, offset), 12},
    {"sizeof KyZCARecord", sizeof(KyZCARecord), 64},
    {"KyZCARecord.address", offsetof(KyZCARecord, address), 0},
    {"KyZCARecord.name", offsetof(KyZCARecord, name), 8},
    {"KyZCARecord.expression", offsetof(KyZCARecord, expression), 16},
    {"KyZCARecord.probe", offsetof(KyZCARecord, probe), 24},
    {"KyZCARecord.argumentCount", offsetof(KyZCARecord, argumentCount), 28},
    {"KyZCARecord.arguments", offsetof(KyZCARecord, arguments), 32},
    {"sizeof KyZCADefinition", sizeof(KyZCADefinition), 48},
    {"KyZCADefinition.offset", offsetof(KyZCADefinition, offset), 0},
    {"KyZCADefinition.name", offsetof(KyZCADefinition, name), 8},
    {"KyZCADefinition.modulePath", offsetof(KyZCADefinition, modulePath), 16},
    {"KyZCADefinition.argumentKind", offsetof(KyZCADefinition, argumentKind), 24},
    {"KyZCADefinition.arguments", offsetof(KyZCADefinition, arguments), 32},
    {"KyZCADefinition.next", offsetof(KyZCADefinition, next), 40},
};

TEST(ZcaLayout, RecordsHaveTheirFixedSizesAndOffsetsInCAndCxx) {
  int index = 0;
  for (const Expected& field : kLayout) {
    EXPECT_EQ(field.cxx, field.value) << field.what;
    EXPECT_EQ(zca_layout_from_c(index), field.value) << field.what << " (C)";
    ++index;
  }
}

TEST(ZcaLayout, FieldTypesHaveTheirWidthsAndSignedness) {
  EXPECT_TRUE((std::is_same_v<decltype(KyZCAArgument::value), uint64_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCAArgument::isRegister), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCAArgument::offset), int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCARecord::address), uint64_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCARecord::probe), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCARecord::argumentCount), uint32_t>));
  EXPECT_EQ(sizeof(KyZCARecord::arguments) / sizeof(KyZCAArgument), 2u);
  EXPECT_TRUE((std::is_same_v<decltype(KyZCADefinition::offset), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCADefinition::argumentKind), int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(KyZCADefinition::next), KyZCADefinition*>));
}

TEST(ZcaLayout, FlagsAreExported64BitConstants) {
  EXPECT_TRUE((std::is_same_v<decltype(KY_ZCA_FLAG_PCREL), const uint64_t>));
  EXPECT_EQ(KY_ZCA_FLAG_PCREL | KY_ZCA_FLAG_PROBE | KY_ZCA_FLAG_32BIT, 7u);
  EXPECT_EQ(KY_ZCA_FLAG_PCREL & KY_ZCA_FLAG_PROBE, 0u);
  EXPECT_STREQ(KY_ZCA_SECTION_NAME, ".qzv_notify_tab");
}

}  // namespace
