// Reading modules with libelf. The file is read, never mapped writable, and
// every section is checked by libelf against the file's size before its
// bytes are copied out, so a truncated or damaged module gives an error
// rather than a read past its end.
#include "tools/kyrt-zca/elf_sections.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kyrt/zca.h"

namespace kyrt_zca {

namespace {

// The file and libelf's view of it, released together.
class ElfFile {
 public:
  explicit ElfFile(const std::string& path) {
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      openError_ = errno;
      return;
    }
    elf_version(EV_CURRENT);
    elf_ = elf_begin(fd_, ELF_C_READ, nullptr);
  }
  ~ElfFile() {
    if (elf_ != nullptr) elf_end(elf_);
    if (fd_ >= 0) close(fd_);
  }
  ElfFile(const ElfFile&) = delete;
  ElfFile& operator=(const ElfFile&) = delete;

  bool opened() const { return fd_ >= 0; }
  int openError() const { return openError_; }
  bool isElf() const { return elf_ != nullptr && elf_kind(elf_) == ELF_K_ELF; }
  Elf* elf() const { return elf_; }

 private:
  int fd_ = -1;
  int openError_ = 0;
  Elf* elf_ = nullptr;
};

std::string LibelfError() {
  const char* message = elf_errmsg(-1);
  return message != nullptr ? message : "unknown libelf error";
}

// A section whose name cannot be read is not an annotation section; the
// error libelf noted for it is cleared, so that only a failure of the walk
// over the sections remains to be reported.
bool IsAnnotationSection(Elf* elf, std::size_t namesIndex, const GElf_Shdr& header) {
  const char* name = elf_strptr(elf, namesIndex, header.sh_name);
  if (name == nullptr) {
    elf_errno();
    return false;
  }
  return std::strcmp(name, KY_ZCA_SECTION_NAME) == 0;
}

bool CopySection(Elf_Scn* section, const GElf_Shdr& header, AnnotationSection* copy,
                 std::string* error) {
  const std::string what = std::string("damaged ") + KY_ZCA_SECTION_NAME + " section: ";
  if (header.sh_type == SHT_NOBITS) {
    *error = what + "it has no bytes in the file";
    return false;
  }
  Elf_Data* data = elf_rawdata(section, nullptr);
  if (data == nullptr) {
    *error = what + LibelfError();
    return false;
  }
  const auto* bytes = static_cast<const uint8_t*>(data->d_buf);
  copy->address = header.sh_addr;
  copy->bytes.assign(bytes, bytes + data->d_size);
  return true;
}

// libelf shows a module whose section header table lies (partly) past the
// end of the file as one without sections; its ELF header still says
// where the table should be.
bool ReadSectionCount(Elf* elf, std::string* error) {
  std::size_t count = 0;
  GElf_Ehdr header;
  if (elf_getshdrnum(elf, &count) != 0 || gelf_getehdr(elf, &header) == nullptr) {
    *error = "damaged ELF file: " + LibelfError();
    return false;
  }
  if (header.e_shoff != 0 && count == 0) {
    *error = "damaged ELF file: the section headers lie past the end of the file";
    return false;
  }
  return true;
}

}  // namespace

bool ReadAnnotationSections(const std::string& path, std::vector<AnnotationSection>* sections,
                            std::string* error) {
  ElfFile file(path);
  if (!file.opened()) {
    *error = std::string("cannot open: ") + std::strerror(file.openError());
    return false;
  }
  if (!file.isElf()) {
    *error = "not an ELF file";
    return false;
  }
  if (!ReadSectionCount(file.elf(), error)) return false;
  std::size_t namesIndex = 0;
  if (elf_getshdrstrndx(file.elf(), &namesIndex) != 0) {
    *error = "damaged ELF file: " + LibelfError();
    return false;
  }
  elf_errno();  // the walk's end is told from its failure by the error left
  for (Elf_Scn* section = elf_nextscn(file.elf(), nullptr); section != nullptr;
       section = elf_nextscn(file.elf(), section)) {
    GElf_Shdr header;
    if (gelf_getshdr(section, &header) == nullptr) {
      *error = "damaged ELF file: " + LibelfError();
      return false;
    }
    if (!IsAnnotationSection(file.elf(), namesIndex, header)) continue;
    AnnotationSection copy;
    if (!CopySection(section, header, &copy, error)) return false;
    sections->push_back(std::move(copy));
  }
  if (elf_errno() != 0) {
    *error = "damaged ELF file: " + LibelfError();
    return false;
  }
  return true;
}

}  // namespace kyrt_zca
