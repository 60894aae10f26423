// Reading symbol tables; see stack_names.h.
#include "conformance/module/stack_names.h"

#include <cxxabi.h>
#include <elf.h>
#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

namespace kavri::conformance {

namespace {

// Names of templates have no end.
constexpr std::size_t longestNameBytes = 120;

constexpr std::string_view framework = "/libboost_unit_test_framework";
constexpr std::string_view again = "   and so on\n";

// A file that cannot be one, or is of another machine, has no symbols.
class SymbolTable {
  public:
    explicit SymbolTable(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), {});
        const auto header = at<Elf64_Ehdr>(0);
        if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
            header->e_ident[EI_CLASS] != ELFCLASS64) {
            return;
        }
        for (unsigned i = 0; i < header->e_shnum; ++i) {
            const auto section = at<Elf64_Shdr>(header->e_shoff + i * sizeof(Elf64_Shdr));
            if (section && (section->sh_type == SHT_SYMTAB || section->sh_type == SHT_DYNSYM)) {
                addSymbols(*section, header->e_shoff);
            }
        }
    }

    // Of the function that holds the address; empty where there is none.
    std::string nameAt(std::uint64_t address) const {
        auto after = functions_.upper_bound(address);
        if (after == functions_.begin()) {
            return "";
        }
        const auto& [begin, function] = *--after;
        return address < begin + function.sizeBytes ? demangled(function.name) : "";
    }

  private:
    struct Function {
        std::uint64_t sizeBytes = 0;
        std::string name;
    };

    template <typename Type>
    std::optional<Type> at(std::uint64_t offset) const {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(Type)) {
            return std::nullopt;
        }
        Type value;
        std::memcpy(&value, bytes_.data() + offset, sizeof(Type));
        return value;
    }

    std::string textAt(std::uint64_t offset) const {
        const auto end = offset < bytes_.size() ? bytes_.find('\0', offset) : std::string::npos;
        return end == std::string::npos ? "" : bytes_.substr(offset, end - offset);
    }

    void addSymbols(const Elf64_Shdr& table, std::uint64_t sections) {
        const auto names = at<Elf64_Shdr>(sections + table.sh_link * sizeof(Elf64_Shdr));
        const std::uint64_t count = names ? table.sh_size / sizeof(Elf64_Sym) : 0;
        for (std::uint64_t i = 0; i < count; ++i) {
            const auto symbol = at<Elf64_Sym>(table.sh_offset + i * sizeof(Elf64_Sym));
            if (!symbol) {
                return;
            }
            if (ELF64_ST_TYPE(symbol->st_info) == STT_FUNC && symbol->st_shndx != SHN_UNDEF) {
                functions_[symbol->st_value] = {symbol->st_size,
                                                textAt(names->sh_offset + symbol->st_name)};
            }
        }
    }

    static std::string demangled(const std::string& name) {
        int status = 0;
        const std::unique_ptr<char, decltype(&std::free)> text(
            abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
        return status == 0 ? text.get() : name;
    }

    std::string bytes_;
    std::map<std::uint64_t, Function> functions_;
};

}  // namespace

std::string namedStack(const std::vector<std::string>& frames, bool isCall) {
    std::map<std::string, SymbolTable> tables;
    std::string lines;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const std::string& frame = frames[i];
        if (frame.find(framework) != std::string::npos) {
            break;
        }
        // Of a recursion the first two calls say it all.
        if (i > 0 && frame == frames[i - 1]) {
            lines += lines.ends_with(again) ? "" : again;
            continue;
        }
        const std::size_t mark = frame.rfind("+0x");
        const std::string file = frame.substr(0, mark);
        std::uint64_t address = 0;
        if (mark != std::string::npos) {
            std::from_chars(frame.data() + mark + 3, frame.data() + frame.size(), address, 16);
        }
        // Where a call returns to may be the next function.
        const std::uint64_t within = i == 0 && !isCall ? address : address - 1;
        std::string name = tables.try_emplace(file, file).first->second.nameAt(within);
        if (name.size() > longestNameBytes) {
            name = name.substr(0, longestNameBytes) + "…";
        }
        lines += fmt::format("#{} {}{}\n", i, name.empty() ? "" : name + ", ",
                             frame.substr(frame.rfind('/') + 1));
    }
    return lines;
}

}  // namespace kavri::conformance
