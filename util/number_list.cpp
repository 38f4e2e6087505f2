// Splitting a separated list of numbers ("1,2,3") into a vector.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kyrt/strings.h"

namespace {

// A number read from the list. It is appended with emplace_back rather than
// as a plain unsigned long: the vector's growth code is then instantiated for
// this internal type and stays hidden inside the library, instead of
// becoming an exported copy of std::vector<unsigned long>'s own.
struct ListedNumber {
  unsigned long value;
  explicit operator unsigned long() const { return value; }
};

// The start of the item after the one at item, or null when item is the
// last: no further separator, or a separator that ends the text. A NUL
// separator is the end of the text itself and never separates anything.
const char* NextItem(const char* item, char separator) {
  if (separator == '\0') return nullptr;
  const char* found = std::strchr(item, separator);
  if (found == nullptr || found[1] == '\0') return nullptr;
  return found + 1;
}

}  // namespace

namespace kyrt {

void StrToNums(const char* text, char separator, std::vector<unsigned long>& out) noexcept {
  if (text == nullptr || *text == '\0') return;
  try {
    for (const char* item = text; item != nullptr; item = NextItem(item, separator)) {
      // atol is signed: "-1" is stored as the largest unsigned value, and an
      // item not starting with a number gives 0.
      out.emplace_back(ListedNumber{static_cast<unsigned long>(std::atol(item))});
    }
  } catch (...) {
    // The vector could not grow: it keeps the numbers appended so far.
  }
}

}  // namespace kyrt
