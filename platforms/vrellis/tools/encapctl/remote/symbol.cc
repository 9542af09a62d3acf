// Looks an exported symbol up in a library that another process has loaded, by the library's own dynamic section and
// hash table, all read from that process's memory: the file may have been replaced since, or lie in another root.
#include <elf.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "output/failure.h"
#include "remote/process.h"

namespace encapctl {
namespace {

constexpr std::size_t kMaxSegments = 64;
constexpr std::size_t kMaxDynamic = 256;
constexpr std::uint32_t kMaxChain = 65536;

// What a search needs of the dynamic section; addresses in the process.
struct DynamicTables {
  std::uint64_t symbols = 0;
  std::uint64_t names = 0;
  std::uint64_t names_bytes = 0;
  std::uint64_t hash = 0;
};

struct Module {
  std::uint64_t base = 0;  // of its first byte
  std::uint64_t end = 0;
  std::uint64_t bias = 0;  // what is to be added to addresses in the file
  std::uint64_t dynamic = 0;
  std::uint64_t dynamic_bytes = 0;

  bool covers(std::uint64_t address) const { return address >= base && address < end; }
};

std::uint32_t hash_of(std::string_view name) {
  std::uint32_t hash = 5381;
  for (const char c : name) {
    hash = hash * 33 + static_cast<unsigned char>(c);
  }
  return hash;
}

std::optional<Module> read_module(const RemoteProcess &process, const std::vector<Mapping> &mappings) {
  Module module;
  module.base = mappings.front().begin;
  module.end = std::max_element(mappings.begin(), mappings.end(), [](const Mapping &a, const Mapping &b) {
                 return a.end < b.end;
               })->end;
  const auto header = process.read_record<Elf64_Ehdr>(module.base);
  if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS64 ||
      header->e_phentsize != sizeof(Elf64_Phdr) || header->e_phnum > kMaxSegments) {
    return std::nullopt;
  }
  bool loaded = false;
  for (std::size_t i = 0; i < header->e_phnum; ++i) {
    const auto segment = process.read_record<Elf64_Phdr>(module.base + header->e_phoff + i * sizeof(Elf64_Phdr));
    if (!segment) {
      return std::nullopt;
    }
    if (segment->p_type == PT_LOAD && !loaded) {
      module.bias = module.base - (segment->p_vaddr - segment->p_offset);
      loaded = true;
    } else if (segment->p_type == PT_DYNAMIC) {
      module.dynamic = module.bias + segment->p_vaddr;
      module.dynamic_bytes = segment->p_memsz;
    }
  }
  return loaded && module.dynamic != 0 ? std::optional(module) : std::nullopt;
}

// The loader may have turned the addresses of the section into those of the process, or left them as in the file.
std::uint64_t placed(const Module &module, std::uint64_t address) {
  return module.covers(address) ? address : module.bias + address;
}

DynamicTables read_tables(const RemoteProcess &process, const Module &module) {
  DynamicTables tables;
  const std::size_t entries = std::min<std::uint64_t>(module.dynamic_bytes / sizeof(Elf64_Dyn), kMaxDynamic);
  for (std::size_t i = 0; i < entries; ++i) {
    const auto entry = process.read_record<Elf64_Dyn>(module.dynamic + i * sizeof(Elf64_Dyn));
    if (!entry || entry->d_tag == DT_NULL) {
      break;
    }
    switch (entry->d_tag) {
      case DT_SYMTAB:
        tables.symbols = placed(module, entry->d_un.d_ptr);
        break;
      case DT_STRTAB:
        tables.names = placed(module, entry->d_un.d_ptr);
        break;
      case DT_STRSZ:
        tables.names_bytes = entry->d_un.d_val;
        break;
      case DT_GNU_HASH:
        tables.hash = placed(module, entry->d_un.d_ptr);
        break;
      default:
        break;
    }
  }
  return tables;
}

bool is_named(const RemoteProcess &process, const DynamicTables &tables, const Elf64_Sym &symbol,
              const std::string &name) {
  std::string there(name.size() + 1, '\0');
  return symbol.st_name < tables.names_bytes && tables.names_bytes - symbol.st_name > name.size() &&
         process.read(tables.names + symbol.st_name, there.data(), there.size()) &&
         std::memcmp(there.data(), name.c_str(), there.size()) == 0;
}

// Returns: the symbol's value, or nothing.
std::optional<std::uint64_t> search(const RemoteProcess &process, const DynamicTables &tables,
                                    const std::string &name) {
  struct HashHeader {
    std::uint32_t buckets, first_symbol, filter_words, filter_shift;
  };
  const auto header = process.read_record<HashHeader>(tables.hash);
  if (tables.hash == 0 || !header || header->buckets == 0) {
    return std::nullopt;
  }
  const std::uint32_t hash = hash_of(name);
  const std::uint64_t buckets = tables.hash + sizeof *header + std::uint64_t{header->filter_words} * 8;
  const std::uint64_t chains = buckets + std::uint64_t{header->buckets} * 4;
  const auto first = process.read_record<std::uint32_t>(buckets + std::uint64_t{hash % header->buckets} * 4);
  if (!first || *first < header->first_symbol) {
    return std::nullopt;
  }
  for (std::uint32_t i = 0; i < kMaxChain; ++i) {
    const std::uint64_t number = std::uint64_t{*first} + i;
    const auto chained = process.read_record<std::uint32_t>(chains + (number - header->first_symbol) * 4);
    const auto symbol = process.read_record<Elf64_Sym>(tables.symbols + number * sizeof(Elf64_Sym));
    if (!chained || !symbol) {
      return std::nullopt;
    }
    if ((*chained | 1) == (hash | 1) && symbol->st_shndx != SHN_UNDEF && is_named(process, tables, *symbol, name)) {
      return symbol->st_value;
    }
    if ((*chained & 1) != 0) {
      return std::nullopt;
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
  const std::optional<Module> module = read_module(process, mappings);
  const std::optional<std::uint64_t> value =
      module ? search(process, read_tables(process, *module), symbol) : std::nullopt;
  if (!value) {
    throw Failure(fmt::format("{} in process {} does not export {}", mappings.front().path, process.pid(), symbol));
  }
  return module->bias + *value;
}

}  // namespace encapctl
