// Looks an exported symbol up in the file of a library that another process has loaded.
#include <fmt/format.h>
#include <gelf.h>
#include <unistd.h>

#include <memory>

#include "output/failure.h"
#include "remote/process.h"

namespace encapctl {
namespace {

constexpr std::uint64_t kPageMask = ~std::uint64_t{4095};

// What is to be added to addresses in the file; nothing when no segment of it lies where the mapping does.
std::optional<std::uint64_t> bias_of(Elf *elf, const Mapping &mapping) {
  std::size_t segments = 0;
  elf_getphdrnum(elf, &segments);
  for (std::size_t i = 0; i < segments; ++i) {
    GElf_Phdr segment;
    if (gelf_getphdr(elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD &&
        (segment.p_offset & kPageMask) == mapping.offset) {
      return mapping.begin - (segment.p_vaddr & kPageMask);
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> value_of(Elf *elf, Elf_Scn *section, const std::string &name) {
  GElf_Shdr header;
  if (gelf_getshdr(section, &header) == nullptr || header.sh_type != SHT_DYNSYM) {
    return std::nullopt;
  }
  Elf_Data *const data = elf_getdata(section, nullptr);
  GElf_Sym symbol;
  for (int i = 0; data != nullptr && gelf_getsym(data, i, &symbol) != nullptr; ++i) {
    const char *const its_name = elf_strptr(elf, header.sh_link, symbol.st_name);
    if (its_name != nullptr && its_name == name && symbol.st_shndx != SHN_UNDEF) {
      return symbol.st_value;
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> find(Elf *elf, const std::string &name) {
  for (Elf_Scn *section = elf_nextscn(elf, nullptr); section != nullptr; section = elf_nextscn(elf, section)) {
    if (const std::optional<std::uint64_t> value = value_of(elf, section, name)) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace

std::uint64_t find_symbol(const RemoteProcess &process, std::string_view file_name, const std::string &symbol) {
  const std::vector<Mapping> mappings = process.mappings_of(file_name);
  if (mappings.empty()) {
    throw Failure(fmt::format("process {} ({}) has no {} loaded", process.pid(), process.comm(), file_name));
  }
  const int fd = process.open_mapped(mappings.front());
  elf_version(EV_CURRENT);
  const std::unique_ptr<Elf, int (*)(Elf *)> elf(elf_begin(fd, ELF_C_READ, nullptr), &elf_end);
  const std::optional<std::uint64_t> bias = bias_of(elf.get(), mappings.front());
  const std::optional<std::uint64_t> value = find(elf.get(), symbol);
  close(fd);
  if (!bias || !value) {
    throw Failure(fmt::format("{} in process {} does not export {}", mappings.front().path, process.pid(), symbol));
  }
  return *bias + *value;
}

}  // namespace encapctl
